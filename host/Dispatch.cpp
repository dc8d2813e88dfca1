#include "host/Dispatch.h"

#include "host/Commands.h"
#include "host/ErrorWindowHost.h"
#include "platform/CException.h"
#include "platform/FileSystem.h"

namespace tavik::host {

namespace {

const Command* Find(const std::vector<Command>& commands, const std::string& name) {
    for (const Command& c : commands)
        if (c.name == name) return &c;
    return nullptr;
}

const Command* FindTop(const std::string& name) {
    for (const Command* c : AllCommands())
        if (c->name == name) return c;
    return nullptr;
}

void PrintOverview(FILE* to) {
    std::fprintf(to, "usage: tavik COMMAND [ARGS...]\n\ncommands:\n");
    for (const Command* c : AllCommands())
        std::fprintf(to, "  %-14s %s\n", c->name.c_str(), c->summary.c_str());
    std::fprintf(to, "  %-14s %s\n", "help", "describe a command: tavik help COMMAND");
    std::fprintf(to, "\nmore help: tavik help TOPIC\n");
    for (const HelpTopic& t : AllHelpTopics())
        std::fprintf(to, "  %-14s %s\n", t.name.c_str(), t.summary.c_str());
}

// Walks from args[at] down the sub-commands; returns the command reached (its path in path) and leaves
// at on its first argument. Null, with the message in error, when a name is missing or unknown.
const Command* Resolve(const std::vector<std::string>& args, size_t& at, std::string& path,
                       std::string& error) {
    const Command* command = FindTop(args[at]);
    if (!command) {
        error = "tavik: unknown command '" + args[at] + "'";
        return nullptr;
    }
    path = "tavik " + command->name;
    for (++at; !command->subcommands.empty(); ++at) {
        if (at == args.size() || args[at] == "--help" || args[at] == "-h") return command;
        const Command* sub = Find(command->subcommands, args[at]);
        if (!sub) {
            error = path + ": unknown command '" + args[at] + "'";
            return nullptr;
        }
        command = sub;
        path += " " + sub->name;
    }
    return command;
}

// Files the library keeps beside the program go to the user's data directory instead, never to /usr or
// a build tree.
bool UseDataDirectory(FILE* err) {
    const std::string directory = TavikDataDirectory();
    if (directory.empty()) {
        std::fprintf(err, "tavik: no place for the data files: set TAVIK_DATA, XDG_DATA_HOME or HOME\n");
        return false;
    }
    if (TavikUseDataDirectory(directory.c_str())) return true;
    const LONG code = static_cast<LONG>(GetLastError());
    if (code == ERROR_DIRECTORY) {
        std::fprintf(err, "tavik: cannot use the data directory: %s is not a directory\n", directory.c_str());
        return false;
    }
    char why[512];
    CFileException(CFileException::OsErrorToException(code), code, directory.c_str())
        .GetErrorMessage(why, sizeof why);
    std::fprintf(err, "tavik: cannot use the data directory: %s\n", why);
    return false;
}

int Help(const std::vector<std::string>& names, FILE* out, FILE* err) {
    if (names.empty()) {
        PrintOverview(out);
        return 0;
    }
    for (const HelpTopic& t : AllHelpTopics()) {
        if (names.size() == 1 && names[0] == t.name) {
            std::fputs(t.text().c_str(), out);
            return 0;
        }
    }
    size_t at = 0;
    std::string path, error;
    const Command* command = Resolve(names, at, path, error);
    if (!command) {
        std::fprintf(err, "%s\n", error.c_str());
        return 2;
    }
    std::fputs(HelpText(*command, path).c_str(), out);
    return 0;
}

}  // namespace

int RunTavik(const std::vector<std::string>& args, FILE* out, FILE* err) {
    if (args.empty()) {
        PrintOverview(err);
        return 2;
    }
    if (args[0] == "help" || args[0] == "--help" || args[0] == "-h")
        return Help(std::vector<std::string>(args.begin() + 1, args.end()), out, err);
    size_t at = 0;
    std::string path, error;
    const Command* command = Resolve(args, at, path, error);
    if (!command) {
        std::fprintf(err, "%s\n", error.c_str());
        if (path.empty())
            PrintOverview(err);
        else
            std::fprintf(err, "try '%s --help'\n", path.c_str());
        return 2;
    }
    const std::vector<std::string> rest(args.begin() + static_cast<std::ptrdiff_t>(at), args.end());
    if (!command->run) {  // a command with sub-commands, none named (Resolve stopped at --help or the end)
        if (!rest.empty()) {
            std::fputs(HelpText(*command, path).c_str(), out);
            return 0;
        }
        std::fprintf(err, "%stry '%s --help'\n", UsageText(*command, path).c_str(), path.c_str());
        return 2;
    }
    Invocation call{path, {}, out, err};
    try {
        call.args = ParseArguments(*command, rest);
        if (call.args.HelpWanted()) {
            std::fputs(HelpText(*command, path).c_str(), out);
            return 0;
        }
        if (!UseDataDirectory(err)) return 1;
        // Storage failures the library reports go to err while the command runs.
        ErrorWindowHost errorWindow(err);
        return command->run(call);
    } catch (const UsageError& e) {
        std::fprintf(err, "%s: %s\n%stry '%s --help'\n", path.c_str(), e.what(),
                     UsageText(*command, path).c_str(), path.c_str());
        return 2;
    }
}

}  // namespace tavik::host
