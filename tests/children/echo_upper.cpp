// echo_upper: answers each line of its input with the same line in capitals at once; ends with its input.
#include <cctype>
#include <iostream>
#include <string>

int main()
{
    for (std::string line; std::getline(std::cin, line);) {
        for (char& c : line) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        std::cout << line << std::endl;
    }
}
