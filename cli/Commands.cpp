#include "cli/Commands.h"

#include "cli/InspectAction.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>

namespace sk {

namespace {

int helpCommand(const Arguments& arguments);

// New subcommands are added here; help and dispatch follow from this table.
const Command Commands[] = {
    {"inspect-action", "PATH [--compact]",
     "Show what Skelvo reads from an action bundle or single-file action",
     "Parses the action bundle (.skbundle folder) or single-file action (.skelvo file) at\n"
     "PATH as Skelvo does and prints every header field, the answers derived from them and\n"
     "the validation result as JSON. Works without a running Skelvo.\n"
     "\n"
     "  --compact   print the JSON on one line\n"
     "\n"
     "Exit status: 0 when the action is valid, 1 when it is invalid, 2 when no action could\n"
     "be read at PATH or the command line is wrong, 127 when the skelvo application could\n"
     "not be started.\n",
     inspectAction},
    {"help", "[COMMAND]", "Show help for sk or for one command",
     "Without a COMMAND lists every command; with one, shows how to use it.\n", helpCommand},
};

void print(std::FILE* stream, std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stream);
}

std::string usageLine(const Command& command)
{
    std::string line = "Usage: sk ";
    line += command.name;
    if (!command.synopsis.empty()) {
        line += ' ';
        line += command.synopsis;
    }
    return line + "\n";
}

void printOverview(std::FILE* stream)
{
    print(stream, "Usage: sk COMMAND [ARGUMENTS]\n"
                  "       sk --help | --version\n"
                  "\n"
                  "Drives Skelvo from the command line.\n"
                  "\n"
                  "Commands:\n");
    size_t width = 0;
    for (const Command& command : Commands) {
        width = std::max(width, command.name.size());
    }
    for (const Command& command : Commands) {
        std::string row = "  ";
        row += command.name;
        row.append(width - command.name.size() + 3, ' ');
        row += command.summary;
        print(stream, row + "\n");
    }
    print(stream, "\nRun 'sk help COMMAND' or 'sk COMMAND --help' for the details of a command.\n");
}

void printCommandHelp(const Command& command)
{
    print(stdout, usageLine(command));
    print(stdout, "\n");
    print(stdout, command.summary);
    print(stdout, ".\n\n");
    print(stdout, command.details);
}

int unknownCommand(std::string_view name)
{
    std::string message = "unknown command '";
    message += name;
    message += "'. Run 'sk --help' for the list of commands.";
    return usageError(message);
}

int helpCommand(const Arguments& arguments)
{
    if (arguments.empty()) {
        printOverview(stdout);
        return ExitSuccess;
    }
    if (arguments.size() > 1) {
        return usageError("help takes at most one command name.");
    }
    const Command* command = findCommand(arguments.front());
    if (!command) {
        return unknownCommand(arguments.front());
    }
    printCommandHelp(*command);
    return ExitSuccess;
}

bool isHelpOption(std::string_view argument)
{
    return argument == "--help" || argument == "-h";
}

// `--help` anywhere before a `--` asks for the command's help instead of running it.
bool asksForHelp(const Arguments& arguments)
{
    for (const std::string& argument : arguments) {
        if (argument == "--") {
            return false;
        }
        if (isHelpOption(argument)) {
            return true;
        }
    }
    return false;
}

} // namespace

std::span<const Command> commands()
{
    return Commands;
}

const Command* findCommand(std::string_view name)
{
    const auto found =
        std::find_if(std::begin(Commands), std::end(Commands),
                     [name](const Command& command) { return command.name == name; });
    return found == std::end(Commands) ? nullptr : &*found;
}

int usageError(std::string_view message)
{
    std::string line = "sk: ";
    line += message;
    print(stderr, line + "\n");
    return ExitUsage;
}

int runCommandLine(const Arguments& arguments)
{
    if (arguments.empty()) {
        printOverview(stderr);
        return ExitUsage;
    }
    const std::string& first = arguments.front();
    if (isHelpOption(first)) {
        printOverview(stdout);
        return ExitSuccess;
    }
    if (first == "--version") {
        print(stdout, "sk " SK_VERSION "\n");
        return ExitSuccess;
    }
    if (first.starts_with('-')) {
        return usageError("unknown option '" + first + "'. Run 'sk --help' for the usage.");
    }
    const Command* command = findCommand(first);
    if (!command) {
        return unknownCommand(first);
    }
    const Arguments rest(arguments.begin() + 1, arguments.end());
    if (asksForHelp(rest)) {
        printCommandHelp(*command);
        return ExitSuccess;
    }
    return command->run(rest);
}

} // namespace sk
