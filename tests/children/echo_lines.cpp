// echo_lines: answers each line of its input with the same line at once; ends with its input.
#include <iostream>
#include <string>

int main()
{
    for (std::string line; std::getline(std::cin, line);) std::cout << line << std::endl;
}
