// The frame every `tavik` command stands on: what a command is (its options, arguments and sub-commands),
// the one parser of its arguments, and the usage text that `--help` and `tavik help` print.
//
// Adding a command:
//   1. Write host/CmdFoo.cpp: a function `const Command& FooCommand()` returning a static Command (name,
//      one-line summary, options, positional arguments, details for --help) and the run function it
//      names. The run function reads its Arguments and calls host modules or the library; it does no
//      parsing of its own. Logic worth testing goes in functions a test can call.
//   2. Declare FooCommand() in host/Commands.h and list it in AllCommands() (host/Commands.cpp).
//   3. Add the source to tavik_host (host/CMakeLists.txt) and its tests to tests/host (RunTavik runs a
//      whole command line with its output captured).
// A command with sub-commands (`tavik store tree|cat`) lists them in `subcommands` and has no run function.
//
// Exit codes: 0 done, 1 failed, 2 bad usage. The parser and GetNumber throw UsageError, which the
// dispatch turns into the message, the usage line and exit code 2; a run function may throw it too.
#pragma once

#include <cstdio>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tavik::host {

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Option {
    enum Kind {
        kFlag,      // --name
        kValue,     // --name VALUE or --name=VALUE, at most once
        kRepeated,  // the same, as often as wanted
        kRefused,   // never accepted: `help` says why (a password on the command line, say)
    };
    std::string name{};  // without the leading "--"
    Kind kind = kFlag;
    std::string value{};  // the value's name in the usage ("FILE")
    std::string help{};
    bool required = false;

    static Option Flag(std::string name, std::string help) {
        return {std::move(name), kFlag, "", std::move(help)};
    }
    static Option Value(std::string name, std::string value, std::string help, bool required = false) {
        return {std::move(name), kValue, std::move(value), std::move(help), required};
    }
    static Option Repeated(std::string name, std::string value, std::string help, bool required = false) {
        return {std::move(name), kRepeated, std::move(value), std::move(help), required};
    }
    static Option Refused(std::string name, std::string why) {
        return {std::move(name), kRefused, "", std::move(why)};
    }
};

class Arguments;
struct Invocation;

struct Command {
    static constexpr size_t kAny = static_cast<size_t>(-1);

    std::string name{};
    std::string summary{};  // one line, for the command lists
    std::vector<Option> options{};
    std::string arguments{};  // the positional arguments in the usage ("KEY FILE", "FILE...")
    size_t minArguments = 0;
    size_t maxArguments = 0;  // kAny: no limit
    std::string details{};    // paragraphs printed after the options by --help
    int (*run)(const Invocation& call) = nullptr;
    std::vector<Command> subcommands{};
};

// What the parser found on a command line.
class Arguments {
public:
    // A flag or option that was given.
    bool Has(std::string_view name) const;
    // The option's value (the last one of a repeated option), or fallback when it was not given.
    std::string Get(std::string_view name, std::string fallback = {}) const;
    // Every value of a repeated option, in the order given.
    std::vector<std::string> GetAll(std::string_view name) const;
    // The value as a whole decimal number from low to high, or fallback when it was not given; throws
    // UsageError for anything else.
    long GetNumber(std::string_view name, long low, long high, long fallback) const;

    const std::vector<std::string>& Positional() const { return m_positional; }
    const std::string& Positional(size_t index) const { return m_positional.at(index); }
    // --help (or -h) was given: nothing else was checked.
    bool HelpWanted() const { return m_help; }

private:
    friend Arguments ParseArguments(const Command& command, const std::vector<std::string>& args);

    std::map<std::string, std::vector<std::string>, std::less<>> m_options;
    std::vector<std::string> m_positional;
    bool m_help = false;
};

// A command being run: its parsed arguments and where its output goes.
struct Invocation {
    std::string path;  // "tavik store cat": the prefix of the command's messages
    Arguments args;
    FILE* out;
    FILE* err;

    // Prints "PATH: message" and a line end to err; returns 1, the exit code of a failure.
    int Fail(const std::string& message) const;
};

// Parses what follows the command's name. Options and positional arguments may come in any order; "--"
// ends the options. A value cannot start with "--" unless given as --name=VALUE, so that a forgotten
// value is reported instead of swallowing the next option. Throws UsageError for an unknown or refused
// option, a missing or unexpected value, an option given twice that is not repeatable, a missing
// required option, and too few or too many positional arguments. With --help nothing else is checked.
Arguments ParseArguments(const Command& command, const std::vector<std::string>& args);

// "usage: tavik check --server HOST [--port PORT] ..."; for a command with sub-commands, one line each.
std::string UsageText(const Command& command, const std::string& path);
// What --help prints: the usage, the summary, the options and the details.
std::string HelpText(const Command& command, const std::string& path);

}  // namespace tavik::host
