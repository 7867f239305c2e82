// prints_then_exits CODE [TEXT]: writes the text in one piece, with no newline of its own, and ends with that
// exit code.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

int main(int argc, char** argv)
{
    const char* text = argc > 2 ? argv[2] : "";
    const size_t length = std::strlen(text);
    if (write(STDOUT_FILENO, text, length) != static_cast<ssize_t>(length)) return 99;
    return argc > 1 ? std::atoi(argv[1]) : 0;
}
