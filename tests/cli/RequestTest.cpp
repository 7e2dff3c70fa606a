// How sk turns a command line into a request: every subcommand, its flags and its usage
// errors, without any application.
#include "cli/Request.h"

#include "cli/Client.h"
#include "cli/Commands.h"
#include "core/SupportPaths.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdlib>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <unistd.h>

namespace {

const std::string Cwd = "/home/me/work";

struct Mapping {
    sk::Arguments commandLine;
    const char* expected; // the request's keys as JSON, "cwd" left out
};

std::string joined(const sk::Arguments& arguments)
{
    std::string text = "sk";
    for (const std::string& argument : arguments) {
        text += " [" + argument + "]";
    }
    return text;
}

void PrintTo(const Mapping& mapping, std::ostream* os)
{
    *os << joined(mapping.commandLine);
}

class RequestMapping : public ::testing::TestWithParam<Mapping> {};

TEST_P(RequestMapping, BuildsTheRequestKeys)
{
    const Mapping& mapping = GetParam();
    const sk::Request request = sk::buildRequest(mapping.commandLine, Cwd);
    ASSERT_TRUE(request.ok()) << request.error;
    nlohmann::json expected = nlohmann::json::parse(mapping.expected);
    expected["cwd"] = Cwd;
    EXPECT_EQ(request.userInfo, expected) << request.userInfo.dump();
}

INSTANTIATE_TEST_SUITE_P(
    EveryCommand, RequestMapping,
    ::testing::Values(
        Mapping{{"list"}, R"({"action": "list"})"},
        Mapping{{"list", "--grid", "Main", "--json"},
                R"({"action": "list", "grid": "Main", "json": true})"},
        Mapping{{"list", "--json", "--grid=Main"},
                R"({"action": "list", "grid": "Main", "json": true})"},
        Mapping{{"run", "Copy"}, R"({"action": "run", "name": "Copy", "event": "clicked"})"},
        Mapping{{"run", "Copy", "a.txt", "../b.txt", "/abs/c d.txt", "./dir/"},
                R"({"action": "run", "name": "Copy", "event": "dragged", "files":
                    ["/home/me/work/a.txt", "/home/me/b.txt", "/abs/c d.txt",
                     "/home/me/work/dir"]})"},
        Mapping{{"run", "Copy", "--text", "hello world"},
                R"({"action": "run", "name": "Copy", "event": "dragged",
                    "text": "hello world"})"},
        Mapping{{"run", "--text=-v", "Copy"},
                R"({"action": "run", "name": "Copy", "event": "dragged", "text": "-v"})"},
        Mapping{{"run", "Copy", "--event", "clicked", "a.txt"},
                R"({"action": "run", "name": "Copy", "event": "clicked",
                    "files": ["/home/me/work/a.txt"]})"},
        Mapping{{"run", "Copy", "--event", "Dragged"},
                R"({"action": "run", "name": "Copy", "event": "dragged"})"},
        Mapping{{"run", "Copy", "--", "-odd.txt", "--json"},
                R"({"action": "run", "name": "Copy", "event": "dragged",
                    "files": ["/home/me/work/-odd.txt", "/home/me/work/--json"]})"},
        Mapping{{"move-action", "Foo", "--category", "Work"},
                R"({"action": "move-action", "name": "Foo", "category": "Work"})"},
        Mapping{{"move-action", "--category", "Work", "Foo", "--grid", "Main", "--from-grid", "Old",
                 "--position", "2"},
                R"({"action": "move-action", "name": "Foo", "category": "Work", "grid": "Main",
                    "fromGrid": "Old", "position": 2})"},
        Mapping{{"list-running", "--json"}, R"({"action": "list-running", "json": true})"},
        Mapping{{"cancel", "3"}, R"({"action": "cancel", "index": 3})"},
        Mapping{{"add", "a.txt"}, R"({"action": "add", "files": ["/home/me/work/a.txt"]})"},
        Mapping{{"add", "a", "b", "--stack", "--name", "Pack"},
                R"({"action": "add", "files": ["/home/me/work/a", "/home/me/work/b"],
                    "stack": true, "name": "Pack"})"},
        Mapping{{"add", "--stack-index", "1", "/tmp/x"},
                R"({"action": "add", "files": ["/tmp/x"], "stackIndex": 1})"},
        Mapping{{"list-items", "--json"}, R"({"action": "list-items", "json": true})"},
        Mapping{{"rename", "2", "Holiday photos"},
                R"({"action": "rename", "index": 2, "newName": "Holiday photos"})"},
        Mapping{{"rename", "2", "--new-name", "Pics"},
                R"({"action": "rename", "index": 2, "newName": "Pics"})"},
        Mapping{{"rename", "2", "--reset"}, R"({"action": "rename", "index": 2, "reset": true})"},
        // Both: the application answers with its own message.
        Mapping{{"rename", "2", "Pics", "--reset"},
                R"({"action": "rename", "index": 2, "newName": "Pics", "reset": true})"},
        Mapping{{"remove", "0"}, R"({"action": "remove", "index": 0})"},
        Mapping{{"clear"}, R"({"action": "clear"})"}, Mapping{{"open"}, R"({"action": "open"})"},
        Mapping{{"close"}, R"({"action": "close"})"},
        Mapping{{"switch-grid", "Work"}, R"({"action": "switch-grid", "name": "Work"})"},
        Mapping{{"create-grid", "My Grid"}, R"({"action": "create-grid", "name": "My Grid"})"},
        Mapping{{"add-category", "Docs", "--grid", "Main"},
                R"({"action": "add-category", "category": "Docs", "grid": "Main"})"},
        Mapping{{"remove-category", "--grid", "Main", "Docs"},
                R"({"action": "remove-category", "category": "Docs", "grid": "Main"})"},
        Mapping{{"list-categories", "--grid", "Main", "--json"},
                R"({"action": "list-categories", "grid": "Main", "json": true})"},
        Mapping{{"grid-settings", "Main"}, R"({"action": "grid-settings", "grid": "Main"})"},
        Mapping{{"grid-settings", "Main", "--name", "Home", "--cols", "0", "--size", "64",
                 "--drop-bar", "off", "--switcher", "ON"},
                R"({"action": "grid-settings", "grid": "Main", "name": "Home", "cols": 0,
                    "size": 64, "dropBar": false, "switcher": true})"},
        // Out of range values travel: the application answers with its limits.
        Mapping{{"grid-settings", "Main", "--size", "-5", "--cols", "11"},
                R"({"action": "grid-settings", "grid": "Main", "size": -5, "cols": 11})"},
        Mapping{{"list-action-types", "--json"},
                R"({"action": "list-action-types", "json": true})"},
        Mapping{{"action-info", "Copy Files"},
                R"({"action": "action-info", "type": "Copy Files"})"},
        Mapping{{"add-action", "Copy Files"}, R"({"action": "add-action", "type": "Copy Files"})"},
        Mapping{{"add-action", "Copy Files", "--grid", "Main", "--category", "Files", "--name",
                 "Backup", "--icon", "icons/b.png", "--options", "folder=out", "overwrite=no",
                 "--options", "formula=a=b", "--options=empty="},
                R"({"action": "add-action", "type": "Copy Files", "grid": "Main",
                    "category": "Files", "name": "Backup", "icon": "/home/me/work/icons/b.png",
                    "options": {"folder": "out", "overwrite": "no", "formula": "a=b",
                                "empty": ""}})"},
        // Pairs end at the first argument that is not one, here the positional TYPE.
        Mapping{{"add-action", "--options", "folder=/tmp", "Copy Files"},
                R"({"action": "add-action", "type": "Copy Files",
                    "options": {"folder": "/tmp"}})"},
        Mapping{{"remove-action", "Foo"}, R"({"action": "remove-action", "name": "Foo"})"},
        Mapping{{"remove-action", "Foo", "--grid", "Main"},
                R"({"action": "remove-action", "name": "Foo", "grid": "Main"})"},
        Mapping{{"set-icon", "Foo", "pic.png"},
                R"({"action": "set-icon", "name": "Foo", "icon": "/home/me/work/pic.png"})"},
        Mapping{{"set-icon", "Foo", "--icon", "/x/y.png", "--grid", "G"},
                R"({"action": "set-icon", "name": "Foo", "icon": "/x/y.png", "grid": "G"})"},
        Mapping{{"set-icon", "Foo", "--reset"},
                R"({"action": "set-icon", "name": "Foo", "reset": true})"},
        Mapping{{"set-icon", "Foo"}, R"({"action": "set-icon", "name": "Foo"})"},
        Mapping{{"list-addon-actions", "--json"},
                R"({"action": "list-addon-actions", "json": true})"},
        Mapping{{"install-action", "Foo"}, R"({"action": "install-action", "name": "Foo"})"},
        Mapping{{"install-action", "Foo", "--force"},
                R"({"action": "install-action", "name": "Foo", "force": true})"}));

struct Refusal {
    sk::Arguments commandLine;
    const char* message; // the usage error, or the start of it
};

void PrintTo(const Refusal& refusal, std::ostream* os)
{
    *os << joined(refusal.commandLine);
}

class UsageErrors : public ::testing::TestWithParam<Refusal> {};

TEST_P(UsageErrors, AreReportedBySk)
{
    const Refusal& refusal = GetParam();
    const sk::Request request = sk::buildRequest(refusal.commandLine, Cwd);
    ASSERT_FALSE(request.ok()) << request.userInfo.dump();
    EXPECT_TRUE(request.error.starts_with(refusal.message)) << request.error;
    EXPECT_TRUE(request.userInfo.is_null());
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, UsageErrors,
    ::testing::Values(
        Refusal{{"run"},
                "run: needs NAME. Usage: sk run NAME [FILES...] [--event "
                "clicked|dragged] [--text TEXT]"},
        Refusal{{"run", "--text", "hi"}, "run: needs NAME."},
        Refusal{{"cancel"}, "cancel: needs INDEX. Usage: sk cancel INDEX"},
        Refusal{{"cancel", "x"}, "cancel: INDEX must be a whole number, not 'x'."},
        Refusal{{"cancel", "1.5"}, "cancel: INDEX must be a whole number, not '1.5'."},
        Refusal{{"cancel", ""}, "cancel: INDEX must be a whole number, not ''."},
        Refusal{{"cancel", "99999999999999999999"}, "cancel: INDEX must be a whole number"},
        Refusal{{"cancel", "1", "2"}, "cancel: unexpected argument '2'."},
        Refusal{{"remove", "-1"}, "remove: unknown option '-1'."},
        Refusal{{"move-action", "Foo"}, "move-action: needs --category CATEGORY."},
        Refusal{{"move-action", "--category", "C"}, "move-action: needs NAME."},
        Refusal{{"move-action", "Foo", "--category", "C", "--position", "two"},
                "move-action: --position must be a whole number, not 'two'."},
        Refusal{{"add"}, "add: needs FILES."}, Refusal{{"add", "--stack"}, "add: needs FILES."},
        Refusal{{"add", "a", "--stack-index", "first"},
                "add: --stack-index must be a whole number, not 'first'."},
        Refusal{{"rename", "1", "A", "--new-name", "B"},
                "rename: give NEW_NAME or --new-name, not both."},
        Refusal{{"set-icon", "X", "a.png", "--icon", "b.png"},
                "set-icon: give IMAGE or --icon, not both."},
        Refusal{{"list", "--grid", "A", "--grid", "B"}, "list: --grid is given more than once."},
        Refusal{{"list", "--json=yes"}, "list: --json takes no value."},
        Refusal{{"list", "--frob"}, "list: unknown option '--frob'. Run 'sk help list'"},
        Refusal{{"list", "extra"}, "list: unexpected argument 'extra'. Usage: sk list"},
        Refusal{{"list", "--grid"}, "list: --grid needs a value (GRID)."},
        Refusal{{"status", "--json"}, "status: unknown option '--json'."},
        Refusal{{"run", "X", "--event", "hover"},
                "run: --event takes clicked or dragged, not 'hover'."},
        Refusal{{"grid-settings", "Main", "--drop-bar", "maybe"},
                "grid-settings: --drop-bar takes on or off, not 'maybe'."},
        Refusal{{"grid-settings", "Main", "--cols", "auto"},
                "grid-settings: --cols must be a whole number, not 'auto'."},
        Refusal{{"add-category", "Docs"}, "add-category: needs --grid GRID."},
        Refusal{{"remove-category", "--grid", "Main"}, "remove-category: needs CATEGORY."},
        Refusal{{"add-action", "T", "--options"},
                "add-action: --options needs at least one KEY=VALUE pair."},
        Refusal{{"add-action", "T", "--options", "=x"},
                "add-action: --options takes KEY=VALUE pairs, not '=x'."},
        Refusal{{"add-action", "T", "--options=novalue"},
                "add-action: --options takes KEY=VALUE pairs, not 'novalue'."},
        Refusal{{"add-action", "T", "--options", "a=1", "--options", "a=2"},
                "add-action: the option 'a' is given more than once."},
        Refusal{{"run", "X", std::string("caf\xe9.txt")},
                "run: an argument is not valid UTF-8 text."}));

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

TEST(Commands, EveryRequestNamesItsCommandAndCarriesTheWorkingFolder)
{
    for (const sk::Command& command : sk::commands()) {
        if (command.run) {
            continue;
        }
        const sk::Request request = sk::buildRequest(command, minimalArguments(command), Cwd);
        ASSERT_TRUE(request.ok()) << command.name << ": " << request.error;
        EXPECT_EQ(request.userInfo["action"], command.name);
        EXPECT_EQ(request.userInfo["cwd"], Cwd) << command.name;
    }
}

TEST(Commands, EveryRequiredArgumentIsCheckedBySk)
{
    for (const sk::Command& command : sk::commands()) {
        if (command.run) {
            continue;
        }
        for (const sk::Positional& positional : command.positionals) {
            if (!positional.required) {
                continue;
            }
            sk::Arguments arguments = minimalArguments(command);
            // Without the positional (always first), the remaining ones are too few.
            arguments.erase(arguments.begin());
            const sk::Request request = sk::buildRequest(command, arguments, Cwd);
            EXPECT_FALSE(request.ok()) << command.name;
            std::string_view name = positional.name;
            if (name.ends_with("...")) {
                name.remove_suffix(3);
            }
            EXPECT_NE(request.error.find("needs " + std::string(name) + "."), std::string::npos)
                << request.error;
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

// Sets environment variables for one test and restores them afterwards.
class Environment {
public:
    ~Environment()
    {
        for (const auto& [name, value] : m_saved) {
            if (value) {
                ::setenv(name.c_str(), value->c_str(), 1);
            } else {
                ::unsetenv(name.c_str());
            }
        }
    }
    void set(const std::string& name, const char* value)
    {
        if (!m_names.contains(name)) {
            m_names.insert(name);
            const char* old = std::getenv(name.c_str());
            m_saved.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        }
        if (value) {
            ::setenv(name.c_str(), value, 1);
        } else {
            ::unsetenv(name.c_str());
        }
    }

private:
    std::set<std::string> m_names;
    std::vector<std::pair<std::string, std::optional<std::string>>> m_saved;
};

TEST(Client, FindsTheSocketWhereTheApplicationListens)
{
    QTemporaryDir dir;
    const std::string root = dir.path().toStdString();
    Environment environment;
    environment.set("USER", "tester"); // the fallback is named by uid, not by this

    environment.set("SKELVO_HOME", (root + "/home/").c_str());
    environment.set("XDG_RUNTIME_DIR", (root + "/xdg").c_str());
    EXPECT_EQ(sk::runtimeFolder(), root + "/home/runtime/skelvo");
    EXPECT_EQ(sk::runtimeFolder(), SupportPaths::runtimeDirectory().toStdString());
    EXPECT_EQ(sk::socketPath(), root + "/home/runtime/skelvo/skelvo.sock");

    environment.set("SKELVO_HOME", nullptr);
    EXPECT_EQ(sk::runtimeFolder(), root + "/xdg/skelvo");
    EXPECT_EQ(sk::runtimeFolder(), SupportPaths::runtimeDirectory().toStdString());

    environment.set("SKELVO_HOME", "");
    environment.set("XDG_RUNTIME_DIR", "");
    ASSERT_TRUE(QDir(dir.path()).mkpath(QStringLiteral("tmp")));
    environment.set("TMPDIR", (root + "/tmp/").c_str());
    EXPECT_EQ(sk::runtimeFolder(),
              root + "/tmp/skelvo-runtime-" + std::to_string(::getuid()) + "/skelvo");
    EXPECT_EQ(sk::runtimeFolder(), SupportPaths::runtimeDirectory().toStdString());

    // The temporary folder is taken with its links resolved.
    ASSERT_TRUE(
        QFile::link(dir.path() + QStringLiteral("/tmp"), dir.path() + QStringLiteral("/link")));
    environment.set("TMPDIR", (root + "/link").c_str());
    EXPECT_EQ(sk::runtimeFolder(),
              root + "/tmp/skelvo-runtime-" + std::to_string(::getuid()) + "/skelvo");
    EXPECT_EQ(sk::runtimeFolder(), SupportPaths::runtimeDirectory().toStdString());
}

} // namespace
