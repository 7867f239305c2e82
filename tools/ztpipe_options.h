/// @file
/// The command line of the program ztpipe.
#ifndef ZT_TOOLS_ZTPIPE_OPTIONS_H
#define ZT_TOOLS_ZTPIPE_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

enum class Action { converse, copy_output, copy_input, say_help, say_version };

struct Options {
    Action action = Action::converse;
    std::string open_options;
    std::string delimiter = "\n";
    std::vector<const char*> environment;      ///< NAME=VALUE; empty when the child inherits ours
    std::optional<std::string> close_options;  ///< unset: what suits the action
    std::optional<std::string> trace_options;
    bool greeting = false;
    bool report = false;
    std::vector<const char*> words;  ///< the program with its arguments, or the one text of a shell command
};

/// Reads the command line. Nothing when it is wrong: the reason is then on standard error.
std::optional<Options> read_options(int argc, char** argv);

extern const char help_text[];

#endif
