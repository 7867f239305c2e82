/// @file
/// What the fuzz targets share: a check that ends the run, and inputs as texts.
#ifndef ZT_FUZZ_CHECK_H
#define ZT_FUZZ_CHECK_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// Ends the process, so that the fuzzer keeps the input, unless two values are equal.
template <class Left, class Right>
void equal(const char* what, const Left& seen, const Right& expected)
{
    if (seen == expected) return;
    if constexpr (std::is_convertible_v<Left, std::string> && std::is_convertible_v<Right, std::string>)
        std::fprintf(stderr, "%s: '%s' instead of '%s'\n", what, std::string(seen).c_str(),
                     std::string(expected).c_str());
    else if constexpr (std::is_arithmetic_v<Left> && std::is_arithmetic_v<Right>)
        std::fprintf(stderr, "%s: %lld instead of %lld\n", what, static_cast<long long>(seen),
                     static_cast<long long>(expected));
    else
        std::fprintf(stderr, "%s: different\n", what);
    std::abort();
}

inline void holds(const char* what, bool condition)
{
    equal(what, condition, true);
}

/// The bytes up to the first terminator.
inline std::string text(const std::uint8_t* data, std::size_t size)
{
    const char* const begin = reinterpret_cast<const char*>(data);
    return std::string(begin, strnlen(begin, size));
}

/// A text in a block that ends behind its terminator, so that a sanitizer sees a step too far.
inline std::vector<char> tight(const std::string& text)
{
    return std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
}

}  // namespace fuzz

#endif
