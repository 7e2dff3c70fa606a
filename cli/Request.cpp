#include "cli/Request.h"

#include "core/CmdLineProtocol.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <istream>
#include <unistd.h>

namespace sk {

namespace {

std::string inQuotes(std::string_view text)
{
    std::string result = "'";
    result += text;
    return result + "'";
}

std::string lowered(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

// Reads one command line into a request. Options may stand anywhere among the positionals
// ("--" ends them); a value follows its option or is attached with "=".
class Parser {
public:
    Parser(const Command& command, const std::string& cwd, std::istream* input)
        : m_command(command)
        , m_cwd(cwd)
        , m_input(input)
    {
        m_request.userInfo = nlohmann::json::object();
        m_request.userInfo["action"] = requestWord(command);
    }

    Request parse(const Arguments& arguments)
    {
        std::vector<std::string_view> positionals;
        bool optionsEnded = false;
        for (size_t i = 0; i < arguments.size() && m_request.ok(); ++i) {
            const std::string& argument = arguments[i];
            if (!optionsEnded && argument == "--") {
                optionsEnded = true;
            } else if (!optionsEnded && argument.size() > 1 && argument.starts_with('-')) {
                i = readOption(arguments, i);
            } else {
                positionals.push_back(argument);
            }
        }
        if (m_request.ok()) {
            assignPositionals(positionals);
        }
        if (m_request.ok()) {
            checkRequiredOptions();
        }
        if (m_request.ok() && m_command.name == "run") {
            defaultRunEvent();
        }
        if (m_request.ok() && !m_cwd.empty()) {
            m_request.userInfo["cwd"] = m_cwd;
        }
        if (!m_request.ok()) {
            m_request.userInfo = nlohmann::json();
        }
        return m_request;
    }

private:
    void fail(const std::string& message)
    {
        if (m_request.ok()) {
            m_request.error = std::string(m_command.name) + ": " + message;
        }
    }

    void failWithUsage(const std::string& message)
    {
        std::string usage = "sk ";
        usage += m_command.name;
        const std::string arguments = synopsis(m_command);
        if (!arguments.empty()) {
            usage += ' ' + arguments;
        }
        fail(message + " Usage: " + usage);
    }

    // Records who set each key, so that a second setting is refused with both spellings.
    void set(std::string_view key, nlohmann::json value, std::string_view spelling)
    {
        for (const auto& [setKey, setSpelling] : m_setBy) {
            if (setKey == key && setSpelling == spelling) {
                fail(std::string(spelling) + " is given more than once.");
                return;
            }
            if (setKey == key) {
                // The argument first, then the option: "give NEW_NAME or --new-name".
                const bool optionFirst = setSpelling.starts_with("--");
                fail("give " + std::string(optionFirst ? spelling : setSpelling) + " or " +
                     std::string(optionFirst ? setSpelling : spelling) + ", not both.");
                return;
            }
        }
        m_setBy.emplace_back(key, spelling);
        m_request.userInfo[std::string(key)] = std::move(value);
    }

    std::optional<nlohmann::json> convert(ValueKind kind, std::string_view value,
                                          std::string_view spelling)
    {
        switch (kind) {
        case ValueKind::Integer: {
            long long number = 0;
            const char* end = value.data() + value.size();
            const auto [rest, error] = std::from_chars(value.data(), end, number);
            if (value.empty() || error != std::errc() || rest != end) {
                fail(std::string(spelling) + " must be a whole number, not " + inQuotes(value) +
                     ".");
                return std::nullopt;
            }
            return number;
        }
        case ValueKind::Path:
        case ValueKind::Files: {
            const std::optional<std::string> path = absolutePath(value, m_cwd);
            if (!path) {
                fail("the current folder cannot be read, so " + inQuotes(value) +
                     " cannot be made absolute; give an absolute path.");
                return std::nullopt;
            }
            return *path;
        }
        case ValueKind::Event: {
            const std::string event = lowered(value);
            if (event != "clicked" && event != "dragged" && event != "test_connection") {
                fail(std::string(spelling) + " takes clicked, dragged or test_connection, not " +
                     inQuotes(value) + ".");
                return std::nullopt;
            }
            return event;
        }
        case ValueKind::Switch: {
            const std::string word = lowered(value);
            if (word == "on" || word == "yes" || word == "true" || word == "1") {
                return true;
            }
            if (word == "off" || word == "no" || word == "false" || word == "0") {
                return false;
            }
            fail(std::string(spelling) + " takes on or off, not " + inQuotes(value) + ".");
            return std::nullopt;
        }
        case ValueKind::Flag:
            return true;
        case ValueKind::Text:
        case ValueKind::Options:
        case ValueKind::List:
            break;
        }
        return std::string(value);
    }

    static bool isPair(std::string_view argument)
    {
        return !argument.starts_with('-') && argument.find('=') != std::string_view::npos;
    }

    void addPair(std::string_view pair, const Option& option)
    {
        const size_t equals = pair.find('=');
        if (equals == std::string_view::npos || equals == 0) {
            fail(std::string(option.flag) + " takes KEY=VALUE pairs, not " + inQuotes(pair) + ".");
            return;
        }
        const std::string key(pair.substr(0, equals));
        nlohmann::json& options = m_request.userInfo[std::string(option.key)];
        if (options.is_null()) {
            options = nlohmann::json::object();
        }
        if (options.contains(key)) {
            fail("the option " + inQuotes(key) + " is given more than once.");
            return;
        }
        options[key] = std::string(pair.substr(equals + 1));
    }

    // Reads the option at `arguments[index]` and its values; returns the index of the last
    // argument it used.
    size_t readOption(const Arguments& arguments, size_t index)
    {
        const std::string_view argument = arguments[index];
        const size_t equals = argument.find('=');
        const std::string_view flag = argument.substr(0, equals);
        std::optional<std::string_view> attached;
        if (equals != std::string_view::npos) {
            attached = argument.substr(equals + 1);
        }
        const auto found =
            std::find_if(m_command.options.begin(), m_command.options.end(),
                         [flag](const Option& option) { return option.flag == flag; });
        if (found == m_command.options.end()) {
            fail("unknown option " + inQuotes(flag) + ". Run 'sk help " +
                 std::string(m_command.name) + "' for the usage.");
            return index;
        }
        const Option& option = *found;

        if (option.kind == ValueKind::Flag) {
            if (attached) {
                fail(std::string(option.flag) + " takes no value.");
            } else {
                set(option.key, true, option.flag);
            }
            return index;
        }
        if (option.kind == ValueKind::Options) {
            if (attached) {
                addPair(*attached, option);
                return index;
            }
            size_t last = index;
            while (last + 1 < arguments.size() && isPair(arguments[last + 1]) && m_request.ok()) {
                addPair(arguments[++last], option);
            }
            if (last == index) {
                fail(std::string(option.flag) + " needs at least one KEY=VALUE pair.");
            }
            return last;
        }

        std::string_view value;
        if (attached) {
            value = *attached;
        } else if (index + 1 < arguments.size()) {
            value = arguments[++index];
        } else {
            fail(std::string(option.flag) + " needs a value (" + std::string(option.valueName) +
                 ").");
            return index;
        }
        if (option.kind == ValueKind::List) {
            // Given again, the option adds to its list instead of being refused.
            nlohmann::json& list = m_request.userInfo[std::string(option.key)];
            if (list.is_null()) {
                list = nlohmann::json::array();
            }
            list.push_back(std::string(value));
        } else if (std::optional<nlohmann::json> converted =
                       convert(option.kind, value, option.flag)) {
            set(option.key, std::move(*converted), option.flag);
        }
        return index;
    }

    static std::string plainName(const Positional& positional)
    {
        std::string_view name = positional.name;
        if (name.ends_with("...")) {
            name.remove_suffix(3);
        }
        return std::string(name);
    }

    void assignPositionals(const std::vector<std::string_view>& values)
    {
        size_t next = 0;
        for (const Positional& positional : m_command.positionals) {
            // Files and List take every remaining argument: paths made absolute, or words.
            if (positional.kind == ValueKind::Files || positional.kind == ValueKind::List) {
                nlohmann::json files = nlohmann::json::array();
                const bool dash = std::find(values.begin() + static_cast<std::ptrdiff_t>(next),
                                            values.end(), "-") != values.end();
                if (positional.dashReadsInput && dash) {
                    if (values.size() - next != 1) {
                        const std::string name = plainName(positional);
                        failWithUsage("'-' reads " + name +
                                      " from standard input and cannot be mixed with other " +
                                      name + ".");
                        return;
                    }
                    files = readPaths(plainName(positional));
                    next = values.size();
                }
                for (; next < values.size() && m_request.ok(); ++next) {
                    if (auto path = convert(positional.kind, values[next], positional.name)) {
                        files.push_back(std::move(*path));
                    }
                }
                const bool otherwiseGiven =
                    !positional.unlessKey.empty() &&
                    m_request.userInfo.contains(std::string(positional.unlessKey));
                if (!m_request.ok()) {
                    return;
                }
                if (files.empty() && positional.required && !otherwiseGiven) {
                    failWithUsage("needs " + plainName(positional) + ".");
                } else if (!files.empty()) {
                    set(positional.key, std::move(files), positional.name);
                }
            } else if (next < values.size()) {
                if (auto value = convert(positional.kind, values[next++], positional.name)) {
                    set(positional.key, std::move(*value), positional.name);
                }
            } else if (positional.required) {
                failWithUsage("needs " + std::string(positional.name) + ".");
            }
            if (!m_request.ok()) {
                return;
            }
        }
        if (next < values.size()) {
            failWithUsage("unexpected argument " + inQuotes(values[next]) + ".");
        }
    }

    // The paths of a lone "-": one per line, as a shell pipeline such as `find` writes them.
    nlohmann::json readPaths(const std::string& name)
    {
        nlohmann::json files = nlohmann::json::array();
        if (!m_input) {
            fail("'-' reads " + name + " from standard input, which is not open.");
            return files;
        }
        std::string line;
        while (m_request.ok() && std::getline(*m_input, line)) {
            if (line.ends_with('\r')) {
                line.pop_back();
            }
            if (line.find_first_not_of(" \t") == std::string::npos) {
                continue;
            }
            if (auto path = convert(ValueKind::Files, line, name)) {
                files.push_back(std::move(*path));
            }
        }
        if (m_input->bad()) {
            fail("cannot read standard input.");
        } else if (files.empty()) {
            fail("standard input gave no paths for '-'.");
        }
        return files;
    }

    void checkRequiredOptions()
    {
        for (const Option& option : m_command.options) {
            if (option.required && !m_request.userInfo.contains(std::string(option.key))) {
                failWithUsage("needs " + std::string(option.flag) + " " +
                              std::string(option.valueName) + ".");
                return;
            }
        }
    }

    // Given something to work on, an action is dragged onto; otherwise it is clicked.
    void defaultRunEvent()
    {
        nlohmann::json& info = m_request.userInfo;
        if (!info.contains("event")) {
            info["event"] = info.contains("files") || info.contains("text") ? "dragged" : "clicked";
        }
    }

    const Command& m_command;
    const std::string& m_cwd;
    std::istream* m_input;
    Request m_request;
    std::vector<std::pair<std::string_view, std::string_view>> m_setBy;
};

// The application refuses a longer request line and closes the connection, possibly before
// sk has sent it all, so that its answer would be lost: better said here.
std::string sizeProblem(const std::string& line)
{
    if (static_cast<long long>(line.size()) <= CmdLineProtocol::MaxMessageBytes) {
        return {};
    }
    return "the request is " + std::to_string(line.size()) + " bytes, more than the " +
           std::to_string(CmdLineProtocol::MaxMessageBytes) +
           " that Skelvo takes in one; give the paths in several parts.";
}

} // namespace

Request buildRequest(const Command& command, const Arguments& arguments, const std::string& cwd,
                     std::istream* input)
{
    Request request = Parser(command, cwd, input).parse(arguments);
    if (!request.ok()) {
        return request;
    }
    const std::optional<std::string> line = requestLine(request.userInfo);
    if (!line) {
        request.error = std::string(command.name) + ": an argument is not valid UTF-8 text.";
    } else if (std::string problem = sizeProblem(*line); !problem.empty()) {
        request.error = std::string(command.name) + ": " + problem;
    }
    if (!request.ok()) {
        request.userInfo = nlohmann::json();
    }
    return request;
}

Request buildRequest(const Arguments& commandLine, const std::string& cwd, std::istream* input)
{
    Request request;
    size_t used = 0;
    const Command* command = findCommand(commandLine, 0, used);
    if (!command || command->run) {
        request.error = "no request command given.";
        return request;
    }
    return buildRequest(
        *command,
        Arguments(commandLine.begin() + static_cast<std::ptrdiff_t>(used), commandLine.end()), cwd,
        input);
}

Request buildRawRequest(std::string_view json, const std::string& cwd)
{
    Request request;
    nlohmann::json userInfo = nlohmann::json::parse(json, nullptr, false);
    if (userInfo.is_discarded() || !userInfo.is_object()) {
        request.error =
            "request: give the request as one JSON object, such as '{\"action\": \"status\"}'.";
        return request;
    }
    if (!userInfo.contains("cwd") && !cwd.empty()) {
        userInfo["cwd"] = cwd;
    }
    if (const std::optional<std::string> line = requestLine(userInfo)) {
        if (std::string problem = sizeProblem(*line); !problem.empty()) {
            request.error = "request: " + problem;
            return request;
        }
    }
    request.userInfo = std::move(userInfo);
    return request;
}

std::optional<std::string> requestLine(const nlohmann::json& userInfo)
{
    const nlohmann::json message = {{"name", CmdLineProtocol::RunTask}, {"userInfo", userInfo}};
    try {
        return message.dump() + "\n";
    } catch (const nlohmann::json::type_error&) {
        // JSON carries only UTF-8; a file name in another encoding cannot travel.
        return std::nullopt;
    }
}

std::optional<std::string> absolutePath(std::string_view path, const std::string& cwd)
{
    if (path.empty()) {
        return std::string();
    }
    std::filesystem::path absolute(path);
    if (absolute.is_relative()) {
        if (cwd.empty()) {
            return std::nullopt;
        }
        absolute = std::filesystem::path(cwd) / absolute;
    }
    std::string text = absolute.lexically_normal().string();
    while (text.size() > 1 && text.back() == '/') {
        text.pop_back();
    }
    return text;
}

std::string currentFolder()
{
    std::string buffer(4096, '\0');
    while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
        if (errno != ERANGE) {
            return {};
        }
        buffer.resize(buffer.size() * 2);
    }
    buffer.resize(std::char_traits<char>::length(buffer.c_str()));
    return buffer;
}

} // namespace sk
