#include "tools/ztpipe_options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

const char help_text[] =
    R"(Usage: ztpipe [OPTION]... [--] PROGRAM [ARG]...   talk with a program, line by line
       ztpipe -c [OPTION]... [--] TEXT            print the output of a shell command
       ztpipe -c -w [OPTION]... [--] TEXT         feed standard input to a shell command

  -c                   TEXT is a shell command (a COMMAND pipe)
  -w                   with -c: write to the command instead of reading from it
  -d DELIMITER         what ends a reply; \n \t \r \a \b \f \v \e \\ \xHH \NNN stand for
                       one byte each; default \n; '' takes what comes in one piece
  -g, --greeting       read up to the delimiter once before the first line is sent,
                       for programs that speak first (a banner, a prompt)
  -e NAME=VALUE        set a variable in the child's environment (may be repeated)
  -o OPTIONS           further options of the open, such as STDERR=DISCARD, KORN,
                       READSIZE=n; PROGRAM or COMMAND, WRITE and MERGE_ENV are set for you
      --close OPTIONS  options of the close: NOKILL, NOWAIT
      --trace OPTIONS  trace the pipe: PARMS, DEBUG, EXCEPTIONS='open,close', ...
      --report         say on standard error how the child ended, the bytes and the time
      --help, --version

Talking with a program: each line of standard input is sent (with a newline, also the
last one), then the reply is printed. A reply has ended when the output, as far as it has
arrived, ends with DELIMITER. So every line must bring one; a program that answers nothing
to a line (bc to an assignment), or only when its input ends (sort), keeps ztpipe waiting:
use -c for those. Lines that the program writes after that one are printed with the next
reply. For a program that prompts, name the prompt:
       ztpipe -g -d '>>> ' python3 -i
A program that has ended instead of reading a line has its last words printed.
At the end of standard input the pipe is closed, output first, and what the program still
wants to say is not printed. It then sees the end of its input and is waited for (NOKILL).
With --close '' it gets SIGTERM at once instead, as it does after a failure. Where a program
says something at its end (a prompt, a farewell), let the last line be its own command to
quit.

Printing the output of a command: each time the output ends with DELIMITER it is printed.
One byte is asked for at a time, so that a line is printed as soon as it is there; -d ''
prints each byte as it comes. -o READSIZE=65536 -d '' copies much data fast, in pieces.

Ctrl-C ends ztpipe and the child. A child that goes on after it (one that ignores SIGINT)
needs a few more, because the pipe tries five times to go on reading.

Exit status: that of the program; 128 + n when signal n ended it, 127 when there is no
such program; 130 after Ctrl-C, 141 when standard output is closed, 125 when the pipe
failed (with the reason on standard error), 64 for wrong usage.
)";

namespace {

constexpr int option_close = 256, option_trace = 257, option_report = 258, option_help = 259,
              option_version = 260;

const option long_options[] = {{"greeting", no_argument, nullptr, 'g'},
                               {"close", required_argument, nullptr, option_close},
                               {"trace", required_argument, nullptr, option_trace},
                               {"report", no_argument, nullptr, option_report},
                               {"help", no_argument, nullptr, option_help},
                               {"version", no_argument, nullptr, option_version},
                               {nullptr, 0, nullptr, 0}};

std::nullopt_t wrong(const char* reason, const char* about = "")
{
    std::fprintf(stderr, "ztpipe: %s%s\nTry 'ztpipe --help'.\n", reason, about);
    return std::nullopt;
}

/// Reads digits of a base, as many as allowed. Advances the text.
int number(const char*& text, int base, int most_digits)
{
    const std::string digits(text, strnlen(text, static_cast<size_t>(most_digits)));
    char* end;
    const long value = std::strtol(digits.c_str(), &end, base);
    text += end - digits.c_str();
    return static_cast<int>(value);
}

bool is_digit_of(char c, const char* digits)
{
    return c != '\0' && std::strchr(digits, c) != nullptr;
}

/// One escape, behind its backslash; negative when there is no such escape. Advances the text.
int escaped_byte(const char*& text)
{
    static const char names[] = "ntrabfve\\'\"", bytes[] = "\n\t\r\a\b\f\v\033\\'\"";
    if (*text == 'x' && is_digit_of(text[1], "0123456789abcdefABCDEF")) return number(++text, 16, 2);
    if (is_digit_of(*text, "01234567")) return number(text, 8, 3);
    const char* name = *text ? std::strchr(names, *text) : nullptr;
    if (!name) return -1;
    ++text;
    return bytes[name - names];
}

/// Empty when the text is wrong: an unknown escape, or a NUL byte, which cannot be part of a delimiter.
std::optional<std::string> unescape(const char* text)
{
    std::string result;
    while (*text) {
        if (*text != '\\') {
            result += *text++;
            continue;
        }
        const int byte = escaped_byte(++text);
        if (byte <= 0 || byte > 255) return std::nullopt;
        result += static_cast<char>(byte);
    }
    return result;
}

}  // namespace

std::optional<Options> read_options(int argc, char** argv)
{
    Options options;
    bool command = false, write = false;
    opterr = 0;
    int letter;
    // '+': what follows the program's name belongs to the program.
    while ((letter = getopt_long(argc, argv, "+:cwgd:e:o:", long_options, nullptr)) != -1) {
        switch (letter) {
            case 'c':
                command = true;
                break;
            case 'w':
                write = true;
                break;
            case 'g':
                options.greeting = true;
                break;
            case 'o':
                options.open_options = optarg;
                break;
            case option_close:
                options.close_options = optarg;
                break;
            case option_trace:
                options.trace_options = optarg;
                break;
            case option_report:
                options.report = true;
                break;
            case option_help:
                options.action = Action::say_help;
                return options;
            case option_version:
                options.action = Action::say_version;
                return options;
            case 'e':
                if (*optarg == '=' || !std::strchr(optarg, '='))
                    return wrong("-e needs NAME=VALUE, not ", optarg);
                options.environment.push_back(optarg);
                break;
            case 'd': {
                const auto delimiter = unescape(optarg);
                if (!delimiter) return wrong("a delimiter cannot be ", optarg);
                options.delimiter = *delimiter;
                break;
            }
            case ':':
                return wrong("an option lacks its value: ", argv[optind - 1]);
            default:
                return wrong("unknown option: ", argv[optind - 1]);
        }
    }
    options.words.assign(argv + optind, argv + argc);
    if (options.words.empty()) return wrong(command ? "no command is given" : "no program is given");
    if (write && !command) return wrong("-w goes with -c");
    if (options.greeting && command) return wrong("--greeting does not go with -c");
    if (command && options.words.size() > 1)
        return wrong("-c takes one text, put it in quotes; behind it stands ", options.words[1]);
    if (command) options.action = write ? Action::copy_input : Action::copy_output;
    return options;
}
