// How sk turns a command line into a request: every subcommand, its flags and its usage
// errors, without any application.
#include "cli/Request.h"

#include "cli/Commands.h"

#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <string>

namespace {

const std::string Cwd = "/home/me/work";

// Each command line and the request keys it makes: "action" (the command) and "cwd" left out.
const std::pair<sk::Arguments, const char*> Mappings[] = {
    {{"list", "--json", "--grid=Main"}, R"({"grid": "Main", "json": true})"},
    {{"run", "Copy"}, R"({"name": "Copy", "event": "clicked"})"},
    {{"run", "Copy", "a.txt", "../b.txt", "/abs/c d.txt", "./dir/"},
     R"({"name": "Copy", "event": "dragged", "files": ["/home/me/work/a.txt", "/home/me/b.txt",
         "/abs/c d.txt", "/home/me/work/dir"]})"},
    {{"run", "--text=-v", "Copy"}, R"({"name": "Copy", "event": "dragged", "text": "-v"})"},
    {{"run", "Copy", "--event", "clicked", "a.txt"},
     R"({"name": "Copy", "event": "clicked", "files": ["/home/me/work/a.txt"]})"},
    {{"run", "Copy", "--event", "Dragged"}, R"({"name": "Copy", "event": "dragged"})"},
    {{"run", "Copy", "--", "-odd.txt", "--json"},
     R"({"name": "Copy", "event": "dragged", "files": ["/home/me/work/-odd.txt",
         "/home/me/work/--json"]})"},
    {{"move-action", "--category", "Work", "Foo", "--grid", "Main", "--from-grid", "Old",
      "--position", "2"},
     R"({"name": "Foo", "category": "Work", "grid": "Main", "fromGrid": "Old", "position": 2})"},
    {{"cancel", "3"}, R"({"index": 3})"},
    {{"add", "a", "--stack", "--name", "Pack"},
     R"({"files": ["/home/me/work/a"], "stack": true, "name": "Pack"})"},
    {{"add", "--stack-index", "1", "/tmp/x"}, R"({"files": ["/tmp/x"], "stackIndex": 1})"},
    {{"add", "--text", "Hello"}, R"({"text": "Hello"})"},
    {{"add", "a", "--text=", "--stack"},
     R"({"files": ["/home/me/work/a"], "text": "", "stack": true})"},
    {{"rename", "2", "Holiday photos"}, R"({"index": 2, "newName": "Holiday photos"})"},
    {{"rename", "2", "--new-name", "Pics"}, R"({"index": 2, "newName": "Pics"})"},
    // Both: the application answers with its own message.
    {{"rename", "2", "Pics", "--reset"}, R"({"index": 2, "newName": "Pics", "reset": true})"},
    {{"remove-category", "--grid", "Main", "Docs"}, R"({"category": "Docs", "grid": "Main"})"},
    {{"grid-settings", "Main", "--name", "Home", "--cols", "0", "--size", "64", "--drop-bar", "off",
      "--switcher", "ON"},
     R"({"grid": "Main", "name": "Home", "cols": 0, "size": 64, "dropBar": false,
         "switcher": true})"},
    // Out of range values travel: the application answers with its limits.
    {{"grid-settings", "Main", "--size", "-5", "--cols", "11"},
     R"({"grid": "Main", "size": -5, "cols": 11})"},
    {{"action-info", "Copy Files"}, R"({"type": "Copy Files"})"},
    // A family's two words make one request word; its first word alone is a command too.
    {{"settings", "--json"}, R"({"json": true})"},
    {{"settings", "get", "PlaySounds"}, R"({"action": "settings-get", "key": "PlaySounds"})"},
    {{"monitor", "add", "in", "--action", "Shrink", "--drop-bar", "Main", "--action=Up load",
      "--confirm"},
     R"({"action": "monitor-add", "folder": "/home/me/work/in", "actions": ["Shrink", "Up load"],
         "dropBar": "Main", "confirm": true})"},
    {{"monitor", "log", "/srv/in/", "--limit", "5"},
     R"({"action": "monitor-log", "folder": "/srv/in", "limit": 5})"},
    {{"settings", "set", "GridIconSize", "--", "-1"},
     R"({"action": "settings-set", "key": "GridIconSize", "value": "-1"})"},
    {{"add-action", "Copy Files", "--grid", "Main", "--category", "Files", "--name", "Backup",
      "--icon", "icons/b.png", "--options", "folder=out", "overwrite=no", "--options",
      "formula=a=b", "--options=empty="},
     R"({"type": "Copy Files", "grid": "Main", "category": "Files", "name": "Backup",
         "icon": "/home/me/work/icons/b.png", "options": {"folder": "out", "overwrite": "no",
         "formula": "a=b", "empty": ""}})"},
    // Pairs end at the first argument that is not one, here the positional TYPE.
    {{"add-action", "--options", "folder=/tmp", "Copy Files"},
     R"({"type": "Copy Files", "options": {"folder": "/tmp"}})"},
    {{"remove-action", "Foo", "--grid", "Main"}, R"({"name": "Foo", "grid": "Main"})"},
    {{"set-icon", "Foo", "pic.png"}, R"({"name": "Foo", "icon": "/home/me/work/pic.png"})"},
    {{"set-icon", "Foo", "--icon", "/x/y.png", "--grid", "G"},
     R"({"name": "Foo", "icon": "/x/y.png", "grid": "G"})"},
    {{"set-icon", "Foo", "--reset"}, R"({"name": "Foo", "reset": true})"},
    {{"install-action", "Foo", "--force"}, R"({"name": "Foo", "force": true})"},
};

TEST(Request, EachCommandLineMakesItsKeys)
{
    for (const auto& [commandLine, keys] : Mappings) {
        const sk::Request request = sk::buildRequest(commandLine, Cwd);
        ASSERT_TRUE(request.ok()) << request.error;
        nlohmann::json expected = nlohmann::json::parse(keys);
        if (!expected.contains("action")) {
            expected["action"] = commandLine.front();
        }
        expected["cwd"] = Cwd;
        EXPECT_EQ(request.userInfo, expected) << request.userInfo.dump();
    }
}

// Each refused command line and its usage error, or the start of it.
const std::pair<sk::Arguments, const char*> Refusals[] = {
    {{"run"},
     "run: needs NAME. Usage: sk run NAME [FILES...] [--event clicked|dragged|test_connection] "
     "[--modifier option|command|shift|control] [--text TEXT]"},
    {{"run", "--text", "hi"}, "run: needs NAME."},
    {{"cancel"}, "cancel: needs INDEX. Usage: sk cancel INDEX"},
    {{"cancel", "1.5"}, "cancel: INDEX must be a whole number, not '1.5'."},
    {{"cancel", "99999999999999999999"}, "cancel: INDEX must be a whole number"},
    {{"cancel", "1", "2"}, "cancel: unexpected argument '2'."},
    {{"remove", "-1"}, "remove: unknown option '-1'."},
    {{"move-action", "Foo"}, "move-action: needs --category CATEGORY."},
    {{"move-action", "--category", "C"}, "move-action: needs NAME."},
    {{"move-action", "Foo", "--category", "C", "--position", "two"},
     "move-action: --position must be a whole number, not 'two'."},
    {{"add", "--stack"}, "add: needs FILES. Usage: sk add [FILES...] [--text TEXT] [--stack]"},
    {{"add", "-"}, "add: '-' reads FILES from standard input, which is not open."},
    {{"add", "a", "--stack-index", "first"},
     "add: --stack-index must be a whole number, not 'first'."},
    {{"rename", "1", "A", "--new-name", "B"}, "rename: give NEW_NAME or --new-name, not both."},
    {{"set-icon", "X", "a.png", "--icon", "b.png"}, "set-icon: give IMAGE or --icon, not both."},
    {{"list", "--grid", "A", "--grid", "B"}, "list: --grid is given more than once."},
    {{"list", "--json=yes"}, "list: --json takes no value."},
    {{"list", "--frob"}, "list: unknown option '--frob'. Run 'sk help list'"},
    {{"list", "extra"}, "list: unexpected argument 'extra'. Usage: sk list"},
    {{"monitor", "add"}, "monitor add: needs FOLDER."},
    {{"monitor", "add", "in", "--action"}, "monitor add: --action needs a value (NAME)."},
    {{"monitor", "add", "in", "--drop-bar", "A", "--drop-bar", "B"},
     "monitor add: --drop-bar is given more than once."},
    {{"settings", "frob"}, "settings: unexpected argument 'frob'. Usage: sk settings [--json]"},
    {{"settings", "set", "PlaySounds"}, "settings set: needs VALUE. Usage: sk settings set KEY"},
    {{"list", "--grid"}, "list: --grid needs a value (GRID)."},
    {{"status", "--json"}, "status: unknown option '--json'."},
    {{"run", "X", "--event", "hover"},
     "run: --event takes clicked, dragged or test_connection, not 'hover'."},
    {{"grid-settings", "Main", "--drop-bar", "maybe"},
     "grid-settings: --drop-bar takes on or off, not 'maybe'."},
    {{"grid-settings", "Main", "--cols", "auto"},
     "grid-settings: --cols must be a whole number, not 'auto'."},
    {{"add-category", "Docs"}, "add-category: needs --grid GRID."},
    {{"add-action", "T", "--options"}, "add-action: --options needs at least one KEY=VALUE pair."},
    {{"add-action", "T", "--options", "=x"},
     "add-action: --options takes KEY=VALUE pairs, not '=x'."},
    {{"add-action", "T", "--options=novalue"},
     "add-action: --options takes KEY=VALUE pairs, not 'novalue'."},
    {{"add-action", "T", "--options", "a=1", "--options", "a=2"},
     "add-action: the option 'a' is given more than once."},
    {{"run", "X", std::string("caf\xe9.txt")}, "run: an argument is not valid UTF-8 text."},
};

TEST(Request, UsageErrorsAreReportedBySk)
{
    for (const auto& [commandLine, message] : Refusals) {
        const sk::Request request = sk::buildRequest(commandLine, Cwd);
        EXPECT_TRUE(request.userInfo.is_null()) << request.userInfo.dump();
        EXPECT_TRUE(request.error.starts_with(message)) << request.error;
    }
}

// Fills every required argument with a valid value, so that each command's minimal request
// can be checked.
sk::Arguments minimalArguments(const sk::Command& command)
{
    sk::Arguments arguments;
    for (const sk::Positional& positional : command.positionals) {
        if (positional.required) {
            arguments.emplace_back(positional.kind == sk::ValueKind::Integer ? "1" : "x");
        }
    }
    for (const sk::Option& option : command.options) {
        if (option.required) {
            arguments.emplace_back(option.flag);
            arguments.emplace_back("x");
        }
    }
    return arguments;
}

TEST(Commands, EveryRequestNamesItsCommandAndEveryRequiredArgumentIsChecked)
{
    for (const sk::Command& command : sk::commands()) {
        if (command.run) {
            continue;
        }
        const sk::Request request = sk::buildRequest(command, minimalArguments(command), Cwd);
        ASSERT_TRUE(request.ok()) << command.name << ": " << request.error;
        EXPECT_EQ(request.userInfo["action"], sk::requestWord(command));
        EXPECT_EQ(request.userInfo["cwd"], Cwd) << command.name;
        const auto required = std::count_if(command.positionals.begin(), command.positionals.end(),
                                            [](const sk::Positional& p) { return p.required; });
        std::ptrdiff_t index = 0;
        for (const sk::Positional& positional : command.positionals) {
            if (positional.required) {
                // Without this positional and those after it, it is the first one missing.
                sk::Arguments fewer = minimalArguments(command);
                fewer.erase(fewer.begin() + index, fewer.begin() + required);
                std::string_view name = positional.name;
                name = name.substr(0, name.find("..."));
                EXPECT_NE(sk::buildRequest(command, fewer, Cwd)
                              .error.find("needs " + std::string(name) + "."),
                          std::string::npos)
                    << command.name;
                ++index;
            }
        }
    }
}

// `count` lines of absolute paths `length` bytes long: "/0ppp…", "/1ppp…", …
std::string lines(size_t count, size_t length)
{
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        std::string path = '/' + std::to_string(i);
        path.resize(length, 'p');
        text += path + '\n';
    }
    return text;
}

// `sk add -` with what standard input holds: the request's keys, or the start of the error.
const std::tuple<std::string, sk::Arguments, std::string> FromInput[] = {
    {"a\r\n\n \t\n/abs/b c \n../c",
     {"add", "-", "--stack"},
     R"({"files": ["/home/me/work/a", "/abs/b c ", "/home/me/c"], "stack": true})"},
    {"a\n", {"add", "--text", "t", "-"}, R"({"files": ["/home/me/work/a"], "text": "t"})"},
    {"\n\n", {"add", "-", "--text", "t"}, "add: standard input gave no paths for '-'."},
    {"a\n",
     {"add", "-", "b"},
     "add: '-' reads FILES from standard input and cannot be mixed with other FILES."},
    {"a\n", {"add", "-", "-"}, "add: '-' reads FILES from standard input and cannot be mixed"},
    // More than a megabyte travels; what the application would refuse is refused here.
    {lines(1200, 1000), {"add", "-"}, "1200 files"},
    {lines(4200, 4096), {"add", "-"}, "add: the request is 17"},
};

TEST(Request, AddReadsPathsFromStandardInput)
{
    for (const auto& [input, commandLine, expected] : FromInput) {
        std::istringstream stream(input);
        const sk::Request request = sk::buildRequest(commandLine, Cwd, &stream);
        if (expected.ends_with(" files")) {
            ASSERT_TRUE(request.ok()) << request.error;
            EXPECT_EQ(request.userInfo["files"].size(), std::stoul(expected));
            EXPECT_EQ(request.userInfo["files"][1199], "/1199" + std::string(995, 'p'));
        } else if (expected.starts_with('{')) {
            ASSERT_TRUE(request.ok()) << request.error;
            nlohmann::json keys = nlohmann::json::parse(expected);
            keys["action"] = "add";
            keys["cwd"] = Cwd;
            EXPECT_EQ(request.userInfo, keys) << request.userInfo.dump();
        } else {
            EXPECT_TRUE(request.userInfo.is_null());
            EXPECT_TRUE(request.error.starts_with(expected)) << request.error;
        }
    }
}

TEST(Request, WithoutAWorkingFolderRelativePathsAreRefused)
{
    const sk::Request relative = sk::buildRequest({"run", "Copy", "a.txt"}, "");
    EXPECT_EQ(relative.error, "run: the current folder cannot be read, so 'a.txt' cannot be made "
                              "absolute; give an absolute path.");

    const sk::Request absolute = sk::buildRequest({"run", "Copy", "/a.txt"}, "");
    ASSERT_TRUE(absolute.ok()) << absolute.error;
    EXPECT_FALSE(absolute.userInfo.contains("cwd"));
    EXPECT_EQ(absolute.userInfo["files"], nlohmann::json::array({"/a.txt"}));
}

TEST(Request, RawRequestsTravelAsGivenWithTheWorkingFolder)
{
    const sk::Request cancel = sk::buildRawRequest(R"({"action": "cancel"})", Cwd);
    ASSERT_TRUE(cancel.ok()) << cancel.error;
    EXPECT_EQ(cancel.userInfo, nlohmann::json({{"action", "cancel"}, {"cwd", Cwd}}));

    const sk::Request ownCwd = sk::buildRawRequest(R"({"cwd": "/elsewhere"})", Cwd);
    EXPECT_EQ(ownCwd.userInfo, nlohmann::json({{"cwd", "/elsewhere"}}));

    for (const char* wrong : {"", "nope", "[1]", "\"list\"", "{\"action\": "}) {
        const sk::Request request = sk::buildRawRequest(wrong, Cwd);
        EXPECT_FALSE(request.ok()) << wrong;
        EXPECT_TRUE(request.error.starts_with("request: give the request as one JSON object"))
            << request.error;
    }
}

TEST(Request, AbsolutePaths)
{
    EXPECT_EQ(sk::absolutePath("a/./b/../c/", "/w"), "/w/a/c");
    EXPECT_EQ(sk::absolutePath("/x//y/", "/w"), "/x/y");
    EXPECT_EQ(sk::absolutePath("..", "/w/v"), "/w");
    EXPECT_EQ(sk::absolutePath("/", "/w"), "/");
    EXPECT_EQ(sk::absolutePath("", "/w"), "");
    EXPECT_EQ(sk::absolutePath("a", ""), std::nullopt);
}

} // namespace
