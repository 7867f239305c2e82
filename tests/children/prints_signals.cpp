// prints_signals: its blocked, ignored and caught signals, as the lines SigBlk, SigIgn and SigCgt of
// /proc/self/status (a bit a signal, the lowest for signal 1).
#include <fstream>
#include <iostream>
#include <string>

int main()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk") || line.starts_with("SigIgn") || line.starts_with("SigCgt")) {
            std::cout << line << '\n';
        }
    }
}
