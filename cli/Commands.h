#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sk {

// Exit statuses shared by every command.
enum ExitStatus : int {
    ExitSuccess = 0,
    ExitFailure = 1, // Skelvo answered with a response beginning "Error: "
    ExitUsage = 2,
    ExitNotRunning = 3,      // no application answers on the socket (and none could be started)
    ExitConnectionLost = 4,  // the connection ended before the finish message
    ExitAppNotStarted = 127, // as a shell reports a command it cannot run
};

using Arguments = std::vector<std::string>;

// What an argument turns into in the request.
enum class ValueKind {
    Flag,    // an option without a value: true
    Text,    // a string as given
    Integer, // a whole number, sent as a JSON number
    Path,    // a path, made absolute against the working folder
    Event,   // "clicked", "dragged" or "test_connection"
    Switch,  // on or off, sent as a boolean
    Options, // KEY=VALUE pairs up to the next option, collected into one object
    List,    // text, once each time the option is given, collected into an array in order
    Files,   // positional only: every remaining argument, each made absolute
};

// An option of a command, such as `--grid GRID`.
struct Option {
    std::string_view flag; // "--grid"
    std::string_view key;  // the request key it sets
    ValueKind kind;
    std::string_view valueName; // "GRID", shown in the usage; empty for a Flag
    std::string_view help;      // one line for the command's help
    bool required = false;
};

// A positional argument of a command, such as NAME or FILES.
struct Positional {
    std::string_view name; // "NAME", shown in the usage
    std::string_view key;  // the request key it sets
    ValueKind kind;        // Text, Integer, Path, Files or List (every remaining word)
    bool required;
    std::string_view unlessKey = {}; // not required when an option set this request key
    bool dashReadsInput = false;     // Files: a lone "-" reads the paths from standard input
};

// Options given before the command word.
struct Session {
    bool startApp = false; // --start: start the application when it is not running
};

// One subcommand: `sk NAME ARGUMENTS`. A command with a `run` function works on its own;
// every other command becomes one request to the running application, built from its
// positionals and options.
struct Command {
    std::string_view name;
    std::string_view group;   // the heading it is listed under in `sk --help`
    std::string_view summary; // one line for the command list
    std::string_view details; // the rest of `sk help NAME`, before the options
    std::span<const Positional> positionals;
    std::span<const Option> options;
    int (*run)(const Arguments& arguments, const Session& session) = nullptr;
    std::string_view synopsis = {}; // the arguments of a command with its own `run`
};

// Every subcommand, in the order `sk --help` lists them.
std::span<const Command> commands();
const Command* findCommand(std::string_view name);
// The command that the words from `first` on name: a family's two words ("monitor list")
// before one word; `used` says how many words it took.
const Command* findCommand(const Arguments& words, size_t first, size_t& used);
// Whether `name` is the first word of a family of commands ("monitor").
bool isCommandFamily(std::string_view name);
// The request word of a command: its name, with a family's words joined by "-".
std::string requestWord(const Command& command);

// The arguments as shown after the name in the usage line.
std::string synopsis(const Command& command);

// Runs the whole command line (without the program name) and returns the exit status.
int runCommandLine(const Arguments& arguments);

// Prints `message` to standard error, prefixed with "sk: ", and returns ExitUsage.
int usageError(std::string_view message);

} // namespace sk
