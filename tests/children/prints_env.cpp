// prints_env [NAME]: the value of one environment variable or "<unset>"; without a name the whole
// environment, a line each.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    if (argc > 1) {
        const char* value = std::getenv(argv[1]);
        std::puts(value ? value : "<unset>");
        return 0;
    }
    for (char** entry = environ; entry && *entry; ++entry) std::puts(*entry);
}
