#include "cli/Commands.h"

#include "cli/Client.h"
#include "cli/InspectAction.h"
#include "cli/Request.h"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

namespace sk {

namespace {

int helpCommand(const Arguments& arguments, const Session& session);
int rawRequest(const Arguments& arguments, const Session& session);

using enum ValueKind;

// --- arguments and options, shared where the meaning is the same ---

constexpr Option JsonOption{"--json", "json", Flag, {}, "answer with JSON instead of text"};
constexpr Option ActionGridOption{"--grid", "grid", Text, "GRID",
                                  "the grid of the action (needed when several grids have an "
                                  "action of that name)"};

constexpr Positional ActionName[] = {{"NAME", "name", Text, true}};
constexpr Positional ActionNames[] = {{"NAME...", "names", List, false}};
constexpr Positional GridName[] = {{"NAME", "name", Text, true}};
constexpr Positional ItemIndex[] = {{"INDEX", "index", Integer, true}};
constexpr Positional ActionType[] = {{"TYPE", "type", Text, true}};
constexpr Positional Category[] = {{"CATEGORY", "category", Text, true}};
constexpr Option JsonOnly[] = {JsonOption};

constexpr Option ListOptions[] = {
    {"--grid", "grid", Text, "GRID", "list the actions of this grid instead of the current one"},
    JsonOption};

constexpr Positional RunArguments[] = {{"NAME", "name", Text, true},
                                       {"FILES...", "files", Files, false}};
constexpr Option RunOptions[] = {
    {"--event", "event", Event, "clicked|dragged|test_connection",
     "how the action is used; dragged when FILES or --text are given, else clicked; "
     "test_connection tests the login of an upload action"},
    {"--modifier", "modifier", Text, "option|command|shift|control",
     "the modifier key held at the drop (Option is the Alt key)"},
    {"--text", "text", Text, "TEXT", "run the action on this text"}};

constexpr Option MoveActionOptions[] = {
    {"--category", "category", Text, "CATEGORY", "the category to move the action to", true},
    {"--grid", "grid", Text, "GRID", "the grid that holds CATEGORY; the current grid when absent"},
    {"--from-grid", "fromGrid", Text, "GRID",
     "the grid the action is in (needed when several grids have an action of that name)"},
    {"--position", "position", Integer, "N", "the place within the category, 0 for the first"}};

constexpr Option AddActionOptions[] = {
    {"--grid", "grid", Text, "GRID", "the grid to add the action to; the current grid when absent"},
    {"--category", "category", Text, "CATEGORY", "the category to add the action to"},
    {"--name", "name", Text, "NAME", "the name shown on the grid; the type's name when absent"},
    {"--icon", "icon", Path, "IMAGE", "an image file to show as the action's icon"},
    {"--options", "options", Options, "KEY=VALUE...",
     "the action's settings, as pairs up to the next option; may be repeated"}};

constexpr Option RemoveActionOptions[] = {ActionGridOption};

constexpr Positional SetIconArguments[] = {{"NAME", "name", Text, true},
                                           {"IMAGE", "icon", Path, false}};
constexpr Option SetIconOptions[] = {
    {"--icon", "icon", Path, "IMAGE", "the image file to use (the same as IMAGE)"},
    {"--reset", "reset", Flag, {}, "go back to the action's own icon"},
    ActionGridOption};

constexpr Positional AddArguments[] = {{"FILES...", "files", Files, true, "text", true}};
constexpr Option AddOptions[] = {
    {"--text", "text", Text, "TEXT", "add this text as one more item, after FILES"},
    {"--stack", "stack", Flag, {}, "put all items into one new stack"},
    {"--stack-index", "stackIndex", Integer, "N", "add the items to the existing stack at index N"},
    {"--name", "name", Text, "NAME", "the name of the new stack"}};

constexpr Positional RenameArguments[] = {{"INDEX", "index", Integer, true},
                                          {"NEW_NAME", "newName", Text, false}};
constexpr Option RenameOptions[] = {
    {"--new-name", "newName", Text, "NEW_NAME", "the new name (the same as NEW_NAME)"},
    {"--reset", "reset", Flag, {}, "go back to the automatic name"}};

constexpr Positional GridSettingsArguments[] = {{"GRID", "grid", Text, true}};
constexpr Option GridSettingsOptions[] = {
    {"--name", "name", Text, "NEW_NAME", "rename the grid"},
    {"--cols", "cols", Integer, "N", "the number of columns: 0 for automatic, or 2 to 10"},
    {"--size", "size", Integer, "N", "the size of the grid, 1 to 150"},
    {"--drop-bar", "dropBar", Switch, "on|off", "show or hide the Drop Bar"},
    {"--switcher", "switcher", Switch, "on|off", "show or hide the grid switcher"}};

constexpr Option ListCategoriesOptions[] = {
    {"--grid", "grid", Text, "GRID",
     "the grid whose categories are listed; the current grid "
     "when absent"},
    JsonOption};
constexpr Option CategoryGridOptions[] = {
    {"--grid", "grid", Text, "GRID", "the grid the category belongs to", true}};

constexpr Option InstallOptions[] = {
    {"--force", "force", Flag, {}, "install even when an action of that name is installed"}};

constexpr Positional SettingKey[] = {{"KEY", "key", Text, true}};
constexpr Positional SettingKeyValue[] = {{"KEY", "key", Text, true},
                                          {"VALUE", "value", Text, true}};

constexpr Positional MonitorFolder[] = {{"FOLDER", "folder", Path, true}};
constexpr Option MonitorAddOptions[] = {
    {"--action", "actions", List, "NAME",
     "run the action NAME on each batch of new files; may be repeated, the actions run in the "
     "order given"},
    {"--grid", "grid", Text, "GRID",
     "the grid of the actions (needed when several grids have an action of that name)"},
    {"--drop-bar", "dropBar", Text, "GRID", "add the new files to the Drop Bar of GRID"},
    {"--confirm", "confirm", Flag, {}, "ask through a notification before running the actions"},
    {"--catch-up",
     "catchUp",
     Flag,
     {},
     "at start, also take the files that arrived while Skelvo was not running"}};
constexpr Option MonitorLogOptions[] = {
    {"--limit", "limit", Integer, "N", "show the last N runs (20 when absent)"}, JsonOption};

// New subcommands are added here; parsing, help and dispatch follow from this table.
constexpr Command Commands[] = {
    // Actions
    {"list",
     "Actions",
     "List the actions of a grid",
     "Lists the actions of the current grid, or of GRID, with their categories.\n",
     {},
     ListOptions},
    {"run", "Actions", "Run an action on files, on text or as a click",
     "Runs the action NAME of the current grid. Given FILES or --text, the action is used as if\n"
     "they were dropped on it; otherwise it is clicked. Relative FILES are taken from the\n"
     "current folder. sk waits until the action has finished and prints what it reports.\n",
     RunArguments, RunOptions},
    {"move-action", "Actions", "Move an action to another category or grid",
     "Moves the action NAME to CATEGORY, in the current grid or in GRID, at the end or at\n"
     "position N.\n",
     ActionName, MoveActionOptions},
    {"add-action", "Actions", "Add an action to a grid",
     "Adds an action of TYPE (an installed action or a built-in action type; see\n"
     "'sk list-action-types') with its settings. 'sk action-info TYPE' lists the settings a\n"
     "type takes. Relative paths are taken from the current folder.\n",
     ActionType, AddActionOptions},
    {"remove-action", "Actions", "Remove an action from a grid", "Removes the action NAME.\n",
     ActionName, RemoveActionOptions},
    {"set-icon", "Actions", "Set or reset the icon of an action",
     "Shows the image IMAGE as the icon of the action NAME, or with --reset restores the\n"
     "action's own icon.\n",
     SetIconArguments, SetIconOptions},
    {"list-action-types",
     "Actions",
     "List the action types that can be added",
     "Lists the installed and built-in action types that 'sk add-action' accepts.\n",
     {},
     JsonOnly},
    {"action-info",
     "Actions",
     "Describe an action type and its settings",
     "Describes the action type TYPE and the settings that 'sk add-action --options' takes.\n",
     ActionType,
     {}},
    // Running actions
    {"list-running",
     "Running actions",
     "List the running actions",
     "Lists the actions that are running, with the INDEX that 'sk cancel' takes.\n",
     {},
     JsonOnly},
    {"cancel",
     "Running actions",
     "Cancel a running action",
     "Cancels the running action at INDEX (see 'sk list-running').\n",
     ItemIndex,
     {}},
    // Drop Bar
    {"add", "Drop Bar", "Add files or text to the Drop Bar",
     "Adds FILES, and the text TEXT as one more item, to the Drop Bar: each as a stack of its\n"
     "own, all in one new stack with --stack, or to the existing stack at index N (as\n"
     "'sk list-items' numbers them, from 1) with --stack-index. --name names a new stack: it\n"
     "needs --stack or a single item. Relative FILES are taken from the current folder.\n"
     "Nothing is added when one of them does not exist.\n"
     "\n"
     "A lone '-' instead of FILES reads the paths from standard input, one per line (blank\n"
     "lines are skipped), for example: find . -name '*.pdf' | sk add - --stack\n"
     "A file named '-' is given as ./-\n",
     AddArguments, AddOptions},
    {"list-items",
     "Drop Bar",
     "List the Drop Bar's stacks",
     "Lists the stacks of the Drop Bar with the INDEX the other Drop Bar commands take.\n",
     {},
     JsonOnly},
    {"rename", "Drop Bar", "Rename a Drop Bar stack",
     "Gives the stack at INDEX the name NEW_NAME, or with --reset its automatic name again.\n",
     RenameArguments, RenameOptions},
    {"remove",
     "Drop Bar",
     "Remove a Drop Bar stack",
     "Removes the stack at INDEX from the Drop Bar.\n",
     ItemIndex,
     {}},
    {"lock",
     "Drop Bar",
     "Lock a Drop Bar stack",
     "Locks the stack at INDEX, so that it stays on the Drop Bar.\n",
     ItemIndex,
     {}},
    {"unlock",
     "Drop Bar",
     "Unlock a Drop Bar stack",
     "Unlocks the stack at INDEX.\n",
     ItemIndex,
     {}},
    {"clear",
     "Drop Bar",
     "Remove the Drop Bar's stacks",
     "Removes the stacks of the Drop Bar.\n",
     {},
     {}},
    {"open-dropbar",
     "Drop Bar",
     "Show the Drop Bar as a pinned window",
     "Shows the Drop Bar in a pinned window of its own.\n",
     {},
     {}},
    {"close-dropbar",
     "Drop Bar",
     "Close the pinned Drop Bar window",
     "Closes the pinned Drop Bar window.\n",
     {},
     {}},
    // Grid window
    {"open", "Grid window", "Open the grid", "Opens the grid window.\n", {}, {}},
    {"close", "Grid window", "Close the grid", "Closes the grid window.\n", {}, {}},
    {"status",
     "Grid window",
     "Tell whether the grid is open",
     "Answers \"open\" when the grid window is open and \"closed\" otherwise (always \"closed\"\n"
     "when Skelvo runs without windows).\n",
     {},
     {}},
    // Grids
    {"list-grids",
     "Grids",
     "List the grids",
     "Lists the grids and marks the current one.\n",
     {},
     JsonOnly},
    {"switch-grid",
     "Grids",
     "Make a grid the current one",
     "Makes the grid NAME the current grid.\n",
     GridName,
     {}},
    {"create-grid",
     "Grids",
     "Create a grid",
     "Creates an empty grid named NAME. Grid names are unique.\n",
     GridName,
     {}},
    {"remove-grid",
     "Grids",
     "Remove a grid",
     "Removes the grid NAME with its categories and actions. The last grid cannot be removed.\n",
     GridName,
     {}},
    {"grid-settings", "Grids", "Show or change the settings of a grid",
     "Without options shows the settings of GRID; with options changes them.\n",
     GridSettingsArguments, GridSettingsOptions},
    // Categories
    {"list-categories",
     "Categories",
     "List the categories of a grid",
     "Lists the categories of the current grid, or of GRID, in their order.\n",
     {},
     ListCategoriesOptions},
    {"add-category", "Categories", "Add a category to a grid",
     "Adds the category CATEGORY at the end of GRID.\n", Category, CategoryGridOptions},
    {"remove-category", "Categories", "Remove a category from a grid",
     "Removes the category CATEGORY from GRID.\n", Category, CategoryGridOptions},
    // Add-on actions
    {"list-addon-actions",
     "Add-on actions",
     "List the add-on actions that can be installed",
     "Lists the add-on actions that can be installed with 'sk install-action'.\n",
     {},
     JsonOnly},
    {"install-action", "Add-on actions", "Install an add-on action",
     "Downloads the add-on action NAME from the action server and installs it. NAME may\n"
     "also be the path of an action bundle, a single-file action or a zip archive holding\n"
     "one, which is installed in place of an installed action of its name.\n",
     ActionName, InstallOptions},
    {"uninstall-action",
     "Add-on actions",
     "Uninstall an add-on action",
     "Uninstalls the add-on action NAME.\n",
     ActionName,
     {}},
    {"update-actions",
     "Add-on actions",
     "Install the updates of add-on actions",
     "Checks the action server for newer versions of the installed add-on actions, or of\n"
     "the NAMEs given, and installs them.\n",
     ActionNames,
     {}},
    // Folder Monitor
    {"monitor list",
     "Folder Monitor",
     "List the monitored folders",
     "Lists the monitored folders: whether each is watched, its actions, its Drop Bar, and\n"
     "the batches of new files that wait for confirmation or for a running batch.\n",
     {},
     JsonOnly},
    {"monitor add", "Folder Monitor", "Monitor a folder for new files",
     "Monitors FOLDER: each batch of files that arrives in it from now on (files already\n"
     "there and subfolders are skipped) runs the actions given with --action, one after\n"
     "another, and/or is added to the Drop Bar of the grid given with --drop-bar. At least\n"
     "one of them is needed. A relative FOLDER is taken from the current folder.\n",
     MonitorFolder, MonitorAddOptions},
    {"monitor remove",
     "Folder Monitor",
     "Stop monitoring a folder and forget it",
     "Stops monitoring FOLDER and removes it from the list. Its files are not touched.\n",
     MonitorFolder,
     {}},
    {"monitor enable",
     "Folder Monitor",
     "Monitor a listed folder again",
     "Monitors FOLDER again after 'sk monitor disable'. Files that arrived meanwhile are\n"
     "skipped unless the folder catches up (--catch-up of 'sk monitor add').\n",
     MonitorFolder,
     {}},
    {"monitor disable",
     "Folder Monitor",
     "Pause the monitoring of a folder",
     "Stops monitoring FOLDER but keeps it in the list with its settings.\n",
     MonitorFolder,
     {}},
    {"monitor confirm",
     "Folder Monitor",
     "Run the batches that wait for confirmation",
     "Runs the actions on the batches of FOLDER that wait for confirmation (a folder added\n"
     "with --confirm), oldest first, as the notification's button does.\n",
     MonitorFolder,
     {}},
    {"monitor log", "Folder Monitor", "Show the last runs of a folder",
     "Lists the last runs of FOLDER, newest first: when, which files, which actions and how\n"
     "it ended.\n",
     MonitorFolder, MonitorLogOptions},
    // Settings
    {"settings",
     "Settings",
     "List the settings with their values",
     "Lists every setting Skelvo knows with its value, and marks those that have their\n"
     "default value. 'sk settings get', 'set' and 'reset' work on one of them.\n",
     {},
     JsonOnly},
    {"settings get",
     "Settings",
     "Print the value of a setting",
     "Prints the value of the setting KEY as it is read: true or false, a number, a text or\n"
     "a JSON list.\n",
     SettingKey,
     {}},
    {"settings set",
     "Settings",
     "Change a setting",
     "Gives the setting KEY the value VALUE, checked against its type: true or false (also\n"
     "yes/no, on/off, 1/0) for a switch, a whole number, a text, a grid or an action (by\n"
     "name or id). MonitoredFolders is changed with 'sk monitor'. A VALUE that begins with\n"
     "'-' follows '--'.\n",
     SettingKeyValue,
     {}},
    {"settings reset",
     "Settings",
     "Give a setting its default value again",
     "Forgets the value given to the setting KEY, so that its default applies.\n",
     SettingKey,
     {}},
    // Working without the application, and raw requests
    {"inspect-action",
     "Other",
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
     {},
     {},
     inspectAction,
     "PATH [--compact]"},
    {"request",
     "Other",
     "Send a request written as JSON",
     "Sends the JSON object REQUEST as it is, with \"cwd\" added unless it has one, and prints\n"
     "the answers like any other command. For scripts and tests that need a request the\n"
     "other commands do not make, for example '{\"action\": \"cancel\"}' without an index.\n",
     {},
     {},
     rawRequest,
     "REQUEST"},
    {"help",
     "Other",
     "Show help for sk or for one command",
     "Without a COMMAND lists every command; with one, shows how to use it.\n",
     {},
     {},
     helpCommand,
     "[COMMAND]"},
};

const char* const ExitStatusText =
    "Exit status: 0 when done; 1 when Skelvo answered with an error (\"Error: ...\", printed on\n"
    "standard error); 2 when the command line is wrong; 3 when Skelvo is not running; 4 when\n"
    "the connection to Skelvo ended before the request finished; 127 when --start could not\n"
    "run skelvo.\n";

void print(std::FILE* stream, std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stream);
}

std::string usageLine(const Command& command)
{
    std::string line = "Usage: sk ";
    line += command.name;
    const std::string arguments = synopsis(command);
    if (!arguments.empty()) {
        line += ' ' + arguments;
    }
    return line + "\n";
}

void printOverview(std::FILE* stream)
{
    print(stream, "Usage: sk COMMAND [ARGUMENTS]\n"
                  "       sk --start COMMAND [ARGUMENTS]\n"
                  "       sk --help | --version\n"
                  "\n"
                  "Drives the running Skelvo application from the command line.\n");
    size_t width = 0;
    for (const Command& command : Commands) {
        width = std::max(width, command.name.size());
    }
    std::string_view group;
    for (const Command& command : Commands) {
        if (command.group != group) {
            group = command.group;
            std::string heading = "\n";
            heading += group;
            print(stream, heading + ":\n");
        }
        std::string row = "  ";
        row += command.name;
        row.append(width - command.name.size() + 3, ' ');
        row += command.summary;
        print(stream, row + "\n");
    }
    print(stream, "\n"
                  "Options before COMMAND:\n"
                  "  --start     start Skelvo without windows (skelvo --headless) when it is not\n"
                  "              running, and wait until it listens\n"
                  "  --help, -h  show this help\n"
                  "  --version   show the version of sk\n"
                  "\n");
    print(stream, ExitStatusText);
    print(stream, "\nRun 'sk help COMMAND' or 'sk COMMAND --help' for the details of a command.\n");
}

std::string optionLabel(const Option& option)
{
    std::string label(option.flag);
    if (!option.valueName.empty()) {
        label += ' ';
        label += option.valueName;
    }
    return label;
}

// One row of an option table: the label, then the help wrapped into its column.
std::string optionRow(std::string_view label, std::string_view help, size_t width)
{
    constexpr size_t LineWidth = 92;
    const size_t column = width + 5;
    std::string row = "  ";
    row += label;
    row.append(column - row.size(), ' ');
    size_t lineStart = 0;
    while (!help.empty()) {
        const size_t space = help.find(' ');
        const std::string_view word = help.substr(0, space);
        const bool lineHasWords = row.size() > lineStart + column;
        if (lineHasWords && row.size() - lineStart + 1 + word.size() > LineWidth) {
            row += '\n';
            lineStart = row.size();
            row.append(column, ' ');
        } else if (lineHasWords) {
            row += ' ';
        }
        row += word;
        help = space == std::string_view::npos ? std::string_view() : help.substr(space + 1);
    }
    return row + "\n";
}

void printCommandHelp(const Command& command)
{
    print(stdout, usageLine(command));
    print(stdout, "\n");
    print(stdout, command.summary);
    print(stdout, ".\n\n");
    print(stdout, command.details);
    if (command.run) {
        return;
    }
    size_t width = std::string_view("--help").size();
    for (const Option& option : command.options) {
        width = std::max(width, optionLabel(option).size());
    }
    print(stdout, "\nOptions:\n");
    for (const Option& option : command.options) {
        print(stdout, optionRow(optionLabel(option), option.help, width));
    }
    print(stdout, optionRow("--help", "show this help", width) + "\n");
    print(stdout, ExitStatusText);
}

// The commands of a family, for `sk monitor` without its second word.
int familyUsage(std::string_view family)
{
    const auto inFamily = [family](const Command& command) {
        return command.name.starts_with(family) && command.name.size() > family.size() &&
               command.name[family.size()] == ' ';
    };
    size_t width = 0;
    for (const Command& command : Commands) {
        if (inFamily(command)) {
            width = std::max(width, command.name.size());
        }
    }
    std::string message = "give one of the commands of '";
    message += family;
    message += "':";
    for (const Command& command : Commands) {
        if (inFamily(command)) {
            message += "\n  sk ";
            message += command.name;
            message.append(width - command.name.size() + 3, ' ');
            message += command.summary;
        }
    }
    return usageError(message);
}

int unknownCommand(std::string_view name)
{
    if (isCommandFamily(name)) {
        return familyUsage(name);
    }
    std::string message = "unknown command '";
    message += name;
    message += "'. Run 'sk --help' for the list of commands.";
    return usageError(message);
}

int helpCommand(const Arguments& arguments, const Session&)
{
    if (arguments.empty()) {
        printOverview(stdout);
        return ExitSuccess;
    }
    size_t used = 0;
    const Command* command = findCommand(arguments, 0, used);
    if (!command) {
        return unknownCommand(arguments.front());
    }
    if (used != arguments.size()) {
        return usageError("help takes at most one command name.");
    }
    printCommandHelp(*command);
    return ExitSuccess;
}

int rawRequest(const Arguments& arguments, const Session& session)
{
    if (arguments.size() != 1) {
        return usageError("request takes one JSON object. Usage: sk request REQUEST");
    }
    const Request request = buildRawRequest(arguments.front(), currentFolder());
    if (!request.ok()) {
        return usageError(request.error);
    }
    return sendRequest(request.userInfo, session);
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

const Command* findCommand(const Arguments& words, size_t first, size_t& used)
{
    used = 0;
    if (first >= words.size()) {
        return nullptr;
    }
    if (first + 1 < words.size()) {
        if (const Command* command = findCommand(words[first] + ' ' + words[first + 1])) {
            used = 2;
            return command;
        }
    }
    const Command* command = findCommand(words[first]);
    used = command ? 1 : 0;
    return command;
}

bool isCommandFamily(std::string_view name)
{
    return std::any_of(std::begin(Commands), std::end(Commands), [name](const Command& command) {
        return command.name.size() > name.size() && command.name.starts_with(name) &&
               command.name[name.size()] == ' ';
    });
}

std::string requestWord(const Command& command)
{
    std::string word(command.name);
    std::replace(word.begin(), word.end(), ' ', '-');
    return word;
}

std::string synopsis(const Command& command)
{
    if (command.run) {
        return std::string(command.synopsis);
    }
    std::string text;
    const auto add = [&text](std::string_view piece, bool optional) {
        if (!text.empty()) {
            text += ' ';
        }
        text += optional ? "[" : "";
        text += piece;
        text += optional ? "]" : "";
    };
    for (const Positional& positional : command.positionals) {
        add(positional.name, !positional.required || !positional.unlessKey.empty());
    }
    for (const Option& option : command.options) {
        add(optionLabel(option), !option.required);
        if (option.kind == List) {
            text += "...";
        }
    }
    return text;
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
    Session session;
    size_t first = 0;
    for (; first < arguments.size() && arguments[first].starts_with('-'); ++first) {
        const std::string& option = arguments[first];
        if (isHelpOption(option)) {
            printOverview(stdout);
            return ExitSuccess;
        }
        if (option == "--version") {
            print(stdout, "sk " SK_VERSION "\n");
            return ExitSuccess;
        }
        if (option != "--start") {
            return usageError("unknown option '" + option + "'. Run 'sk --help' for the usage.");
        }
        session.startApp = true;
    }
    if (first == arguments.size()) {
        printOverview(stderr);
        return ExitUsage;
    }
    size_t used = 0;
    const Command* command = findCommand(arguments, first, used);
    if (!command) {
        return unknownCommand(arguments[first]);
    }
    const Arguments rest(arguments.begin() + static_cast<std::ptrdiff_t>(first + used),
                         arguments.end());
    if (asksForHelp(rest)) {
        printCommandHelp(*command);
        return ExitSuccess;
    }
    if (command->run) {
        return command->run(rest, session);
    }
    const Request request = buildRequest(*command, rest, currentFolder(), &std::cin);
    if (!request.ok()) {
        return usageError(request.error);
    }
    return sendRequest(request.userInfo, session);
}

} // namespace sk
