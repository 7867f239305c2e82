/// @file
/// Where the child programs of the tests are (tests/children), each named by what it does.
#ifndef ZT_TESTS_SUPPORT_CHILDREN_H
#define ZT_TESTS_SUPPORT_CHILDREN_H

#include <string>

/// The program text that starts a child program, with its arguments as they would be typed.
inline std::string child(const std::string& name_and_arguments)
{
    return ZT_TEST_CHILDREN_DIR "/" + name_and_arguments;
}

#endif
