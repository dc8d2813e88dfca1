#include "host/CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace tavik::host {

namespace {

const Option* FindOption(const Command& command, std::string_view name) {
    for (const Option& o : command.options)
        if (o.name == name) return &o;
    return nullptr;
}

bool IsHelp(const std::string& arg) { return arg == "--help" || arg == "-h"; }

std::string Synopsis(const Option& o) {
    std::string text = "--" + o.name;
    if (o.kind != Option::kFlag) text += " " + o.value;
    if (!o.required) text = "[" + text + "]";
    if (o.kind == Option::kRepeated) text += "...";
    return text;
}

std::string UsageLine(const Command& command, const std::string& path) {
    std::string line = path;
    for (const Option& o : command.options)
        if (o.kind != Option::kRefused) line += " " + Synopsis(o);
    if (!command.arguments.empty()) line += " " + command.arguments;
    return line;
}

void AddUsageLines(const Command& command, const std::string& path, std::vector<std::string>& lines) {
    if (command.subcommands.empty()) {
        lines.push_back(UsageLine(command, path));
        return;
    }
    for (const Command& sub : command.subcommands) AddUsageLines(sub, path + " " + sub.name, lines);
}

}  // namespace

bool Arguments::Has(std::string_view name) const { return m_options.find(name) != m_options.end(); }

std::string Arguments::Get(std::string_view name, std::string fallback) const {
    auto it = m_options.find(name);
    return it == m_options.end() || it->second.empty() ? fallback : it->second.back();
}

std::vector<std::string> Arguments::GetAll(std::string_view name) const {
    auto it = m_options.find(name);
    return it == m_options.end() ? std::vector<std::string>{} : it->second;
}

long Arguments::GetNumber(std::string_view name, long low, long high, long fallback) const {
    if (!Has(name)) return fallback;
    const std::string text = Get(name);
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text.c_str(), &end, 10);
    bool digitsOnly = !text.empty() && std::all_of(text.begin() + (text[0] == '-' ? 1 : 0), text.end(),
                                                   [](char c) { return c >= '0' && c <= '9'; });
    if (!digitsOnly || *end != '\0' || errno == ERANGE || value < low || value > high) {
        throw UsageError("--" + std::string(name) + " takes a whole number from " + std::to_string(low) +
                         " to " + std::to_string(high) + ", not '" + text + "'");
    }
    return value;
}

int Invocation::Fail(const std::string& message) const {
    std::fprintf(err, "%s: %s\n", path.c_str(), message.c_str());
    return 1;
}

Arguments ParseArguments(const Command& command, const std::vector<std::string>& args) {
    Arguments result;
    for (const std::string& arg : args) {
        if (arg == "--") break;
        if (IsHelp(arg)) {
            result.m_help = true;
            return result;
        }
    }
    bool optionsEnd = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnd || arg == "-" || arg.empty() || arg[0] != '-') {
            result.m_positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnd = true;
            continue;
        }
        if (arg.size() < 3 || arg[1] != '-') throw UsageError("unknown option " + arg);
        const size_t equals = arg.find('=');
        const std::string name = arg.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
        const Option* option = FindOption(command, name);
        if (!option) throw UsageError("unknown option --" + name);
        if (option->kind == Option::kRefused)
            throw UsageError("--" + name + " is not accepted: " + option->help);
        auto& values = result.m_options[name];
        if (option->kind == Option::kFlag) {
            if (equals != std::string::npos) throw UsageError("--" + name + " takes no value");
            values.clear();
            continue;
        }
        if (option->kind == Option::kValue && !values.empty()) throw UsageError("--" + name + " given twice");
        if (equals != std::string::npos) {
            values.push_back(arg.substr(equals + 1));
        } else if (i + 1 < args.size() && args[i + 1].rfind("--", 0) != 0) {
            values.push_back(args[++i]);
        } else {
            throw UsageError("--" + name + " needs a value (" + option->value + ")");
        }
    }
    for (const Option& o : command.options)
        if (o.required && !result.Has(o.name)) throw UsageError("--" + o.name + " is required");
    const size_t count = result.m_positional.size();
    if (count < command.minArguments) {
        throw UsageError(command.arguments.empty() ? "missing arguments" : "missing " + command.arguments);
    }
    if (command.maxArguments != Command::kAny && count > command.maxArguments) {
        throw UsageError("unexpected argument '" + result.m_positional[command.maxArguments] + "'");
    }
    return result;
}

std::string UsageText(const Command& command, const std::string& path) {
    std::vector<std::string> lines;
    AddUsageLines(command, path, lines);
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) text += (i == 0 ? "usage: " : "       ") + lines[i] + "\n";
    return text;
}

std::string HelpText(const Command& command, const std::string& path) {
    std::string text = UsageText(command, path) + "\n" + command.summary + "\n";
    if (!command.subcommands.empty()) {
        text += "\ncommands:\n";
        for (const Command& sub : command.subcommands) {
            std::string name = "  " + sub.name;
            name.resize(std::max<size_t>(name.size() + 1, 14), ' ');
            text += name + sub.summary + "\n";
        }
        text += "\n'" + path + " COMMAND --help' describes each.\n";
    }
    bool anyOption = false;
    for (const Option& o : command.options) {
        if (o.kind == Option::kRefused) continue;
        if (!anyOption) text += "\noptions:\n";
        anyOption = true;
        std::string left = "  --" + o.name + (o.kind == Option::kFlag ? "" : " " + o.value);
        left.resize(std::max<size_t>(left.size() + 2, 26), ' ');
        text += left + o.help + "\n";
    }
    if (!command.details.empty()) text += "\n" + command.details + "\n";
    return text;
}

}  // namespace tavik::host
