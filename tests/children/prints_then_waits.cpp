// prints_then_waits TEXT: writes the text in one piece, with no newline of its own, and lives on until a
// signal ends it.
#include <unistd.h>

#include <cstring>

int main(int argc, char** argv)
{
    const char* text = argc > 1 ? argv[1] : "";
    const size_t length = std::strlen(text);
    if (write(STDOUT_FILENO, text, length) != static_cast<ssize_t>(length)) return 1;
    for (;;) pause();
}
