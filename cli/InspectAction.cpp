#include "cli/InspectAction.h"

#include "cli/AppProcess.h"

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

namespace sk {

namespace {

// The application is handed an absolute path: it does not share sk's idea of "here" once
// paths travel further, and a trailing slash left by shell completion would hide the
// bundle's extension.
std::optional<std::string> absolutePath(const std::string& path)
{
    std::error_code error;
    std::filesystem::path absolute(path);
    if (absolute.is_relative()) {
        const auto cwd = std::filesystem::current_path(error);
        if (error) {
            return std::nullopt;
        }
        absolute = cwd / absolute;
    }
    std::string text = absolute.string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

void writeOut(const std::string& text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

} // namespace

int inspectAction(const Arguments& arguments, const Session&)
{
    bool compact = false;
    std::optional<std::string> path;
    bool optionsEnded = false;
    for (const std::string& argument : arguments) {
        if (!optionsEnded && argument == "--") {
            optionsEnded = true;
        } else if (!optionsEnded && argument == "--compact") {
            compact = true;
        } else if (!optionsEnded && argument.size() > 1 && argument.starts_with('-')) {
            return usageError("inspect-action: unknown option '" + argument + "'.");
        } else if (path) {
            return usageError("inspect-action takes one PATH.");
        } else {
            path = argument;
        }
    }
    if (!path || path->empty()) {
        return usageError("inspect-action needs the PATH of an action. Usage: sk inspect-action "
                          "PATH [--compact]");
    }
    const std::optional<std::string> absolute = absolutePath(*path);
    if (!absolute) {
        return usageError("inspect-action: the current folder cannot be read, give an absolute "
                          "PATH.");
    }

    const AppRun run = runApp({"--inspect-action", *absolute});
    if (!run.started) {
        std::fprintf(stderr,
                     "sk: cannot start the Skelvo application (skelvo beside sk or on PATH): %s\n",
                     run.startError.c_str());
        return ExitAppNotStarted;
    }
    if (run.signal != 0) {
        std::fprintf(stderr, "sk: skelvo was ended by signal %d\n", run.signal);
    }

    if (compact) {
        const auto report = nlohmann::json::parse(run.output, nullptr, false);
        if (!report.is_discarded()) {
            writeOut(report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
            return run.exitStatus;
        }
    }
    // Not JSON (an older or broken application): show what it said rather than nothing.
    writeOut(run.output);
    return run.exitStatus;
}

} // namespace sk
