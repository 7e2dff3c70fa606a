#pragma once

#include "cli/Commands.h"

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace sk {

// The request a command line asks for, or why the command line is wrong.
struct Request {
    nlohmann::json userInfo; // "action", the command's keys and "cwd"
    std::string error;       // a usage error without the "sk: " prefix; empty when valid
    bool ok() const { return error.empty(); }
};

// Builds the request of `sk COMMAND ARGUMENTS` for a command that talks to the application.
// `cwd` is the working folder: sent as "cwd" and used to make paths absolute; empty when it
// cannot be read. `input` is standard input, read for a lone "-" of `sk add`; null when
// there is none. A request longer than the application takes is refused here.
Request buildRequest(const Command& command, const Arguments& arguments, const std::string& cwd,
                     std::istream* input = nullptr);

// The same for a whole command line (without the program name) whose first word is the
// command.
Request buildRequest(const Arguments& commandLine, const std::string& cwd,
                     std::istream* input = nullptr);

// `sk request JSON`: the object as given, with "cwd" added unless it has one.
Request buildRawRequest(std::string_view json, const std::string& cwd);

// The line sent on the socket, newline included; nullopt when a value is not valid UTF-8.
std::optional<std::string> requestLine(const nlohmann::json& userInfo);

// `path` made absolute against `cwd` and cleaned of "." and ".." pieces and trailing
// slashes; nullopt when it is relative and `cwd` is empty. An empty path stays empty.
std::optional<std::string> absolutePath(std::string_view path, const std::string& cwd);

// The working folder, or empty when it cannot be read (it was removed, for example).
std::string currentFolder();

} // namespace sk
