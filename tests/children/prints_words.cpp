// prints_words [WORD]...: the words it was started with, each as a line "|WORD|", its own name first.
#include <cstdio>

int main(int argc, char** argv)
{
    for (int i = 0; i < argc; ++i) std::printf("|%s|\n", argv[i]);
}
