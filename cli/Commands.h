#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sk {

// Exit statuses shared by every command.
enum ExitStatus : int {
    ExitSuccess = 0,
    ExitFailure = 1,
    ExitUsage = 2,
    ExitAppNotStarted = 127, // as a shell reports a command it cannot run
};

using Arguments = std::vector<std::string>;

// One subcommand: `sk NAME ARGUMENTS`.
struct Command {
    std::string_view name;
    std::string_view synopsis; // the arguments, as shown after the name in the usage line
    std::string_view summary;  // one line for the command list
    std::string_view details;  // the rest of `sk help NAME`
    int (*run)(const Arguments& arguments);
};

// Every subcommand, in the order `sk --help` lists them.
std::span<const Command> commands();
const Command* findCommand(std::string_view name);

// Runs the whole command line (without the program name) and returns the exit status.
int runCommandLine(const Arguments& arguments);

// Prints `message` to standard error, prefixed with "sk: ", and returns ExitUsage.
int usageError(std::string_view message);

} // namespace sk
