// The one option parser every command uses, and the usage text it prints.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/CommandLine.h"

using namespace tavik::host;

namespace {

const Command& TryCommand() {
    static const Command command{
        .name = "try",
        .summary = "a command to parse for",
        .options =
            {
                Option::Flag("json", "print JSON"),
                Option::Value("port", "PORT", "the port"),
                Option::Repeated("to", "ADDRESS", "a recipient"),
                Option::Refused("password", "it would be visible to every user"),
            },
        .arguments = "FILE...",
        .minArguments = 1,
        .maxArguments = 2,
        .details = "More to say.",
        .run = [](const Invocation&) { return 0; },
    };
    return command;
}

// "json port=25 to=a,b | x y": the options given, then the positional arguments; or "error: ...".
std::string Parse(const Command& command, const std::vector<std::string>& args) {
    try {
        Arguments parsed = ParseArguments(command, args);
        if (parsed.HelpWanted()) return "help";
        std::string text;
        for (const Option& o : command.options) {
            if (!parsed.Has(o.name)) continue;
            text += o.name;
            if (o.kind != Option::kFlag) {
                std::string values;
                for (const std::string& v : parsed.GetAll(o.name)) values += (values.empty() ? "" : ",") + v;
                text += "=" + values;
            }
            text += " ";
        }
        text += "|";
        for (const std::string& p : parsed.Positional()) text += " " + p;
        return text;
    } catch (const UsageError& e) {
        return std::string("error: ") + e.what();
    }
}

struct Row {
    std::vector<std::string> args;
    std::string expected;
};

}  // namespace

TEST(CommandLine, AcceptsEveryFormOfOptionAmongTheArguments) {
    const Row rows[] = {
        {{"a"}, "| a"},
        {{"--json", "a", "b"}, "json | a b"},
        {{"a", "--port", "25"}, "port=25 | a"},
        {{"--port=25", "a"}, "port=25 | a"},
        {{"--port=", "a"}, "port= | a"},
        {{"--port=a=b", "a"}, "port=a=b | a"},
        {{"--port", "-1", "a"}, "port=-1 | a"},
        {{"--to", "x", "a", "--to=y"}, "to=x,y | a"},
        {{"--json", "--json", "a"}, "json | a"},
        {{"--", "--json", "-"}, "| --json -"},
        {{"-", "a"}, "| - a"},
        {{"a", "--bogus", "--help"}, "help"},
        {{"-h"}, "help"},
        {{"a", "--", "--help"}, "| a --help"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(Parse(TryCommand(), row.args), row.expected) << ::testing::PrintToString(row.args);
}

TEST(CommandLine, RefusesWhatItCannotTakeWithTheReason) {
    const Row rows[] = {
        {{"--bogus", "a"}, "error: unknown option --bogus"},
        {{"--bogus=1", "a"}, "error: unknown option --bogus"},
        {{"-x", "a"}, "error: unknown option -x"},
        {{"a", "--port"}, "error: --port needs a value (PORT)"},
        {{"--port", "--json", "a"}, "error: --port needs a value (PORT)"},
        {{"--json=yes", "a"}, "error: --json takes no value"},
        {{"--port", "1", "--port=2", "a"}, "error: --port given twice"},
        {{"--password", "secret", "a"},
         "error: --password is not accepted: it would be visible to every user"},
        {{"--password=secret", "a"}, "error: --password is not accepted: it would be visible to every user"},
        {{}, "error: missing FILE..."},
        {{"--json"}, "error: missing FILE..."},
        {{"a", "b", "c"}, "error: unexpected argument 'c'"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(Parse(TryCommand(), row.args), row.expected) << ::testing::PrintToString(row.args);

    const Command required{.name = "need", .options = {Option::Value("server", "HOST", "", true)}};
    EXPECT_EQ(Parse(required, {}), "error: --server is required");
    EXPECT_EQ(Parse(required, {"--server", "h"}), "server=h |");
    EXPECT_EQ(Parse(required, {"--server", "h", "x"}), "error: unexpected argument 'x'");
}

TEST(CommandLine, NumbersAreWholeAndWithinTheirRange) {
    const struct {
        std::string value;
        long expected;  // -99: refused
    } rows[] = {
        {"25", 25},
        {"1", 1},
        {"65535", 65535},
        {"0", -99},
        {"65536", -99},
        {"2x", -99},
        {"", -99},
        {"+5", -99},
        {" 5", -99},
        {"0x10", -99},
        {"99999999999999999999", -99},
    };
    for (const auto& row : rows) {
        Arguments args = ParseArguments(TryCommand(), {"--port=" + row.value, "a"});
        long got = -99;
        try {
            got = args.GetNumber("port", 1, 65535, 110);
        } catch (const UsageError& e) {
            EXPECT_STREQ(e.what(),
                         ("--port takes a whole number from 1 to 65535, not '" + row.value + "'").c_str());
        }
        EXPECT_EQ(got, row.expected) << row.value;
    }
    EXPECT_EQ(ParseArguments(TryCommand(), {"a"}).GetNumber("port", 1, 65535, 110), 110);
    EXPECT_EQ(ParseArguments(TryCommand(), {"--port=-3", "a"}).GetNumber("port", -5, 5, 0), -3);
}

TEST(CommandLine, UsageAndHelpAreBuiltFromTheCommand) {
    EXPECT_EQ(UsageText(TryCommand(), "tavik try"),
              "usage: tavik try [--json] [--port PORT] [--to ADDRESS]... FILE...\n");
    EXPECT_EQ(HelpText(TryCommand(), "tavik try"),
              "usage: tavik try [--json] [--port PORT] [--to ADDRESS]... FILE...\n"
              "\n"
              "a command to parse for\n"
              "\n"
              "options:\n"
              "  --json                  print JSON\n"
              "  --port PORT             the port\n"
              "  --to ADDRESS            a recipient\n"
              "\n"
              "More to say.\n");

    const Command group{
        .name = "group",
        .summary = "two in one",
        .subcommands = {{.name = "one", .summary = "the first", .arguments = "A"},
                        {.name = "two",
                         .summary = "the second",
                         .options = {Option::Value("x", "X", "", true)}}},
    };
    EXPECT_EQ(HelpText(group, "tavik group"),
              "usage: tavik group one A\n"
              "       tavik group two --x X\n"
              "\n"
              "two in one\n"
              "\n"
              "commands:\n"
              "  one         the first\n"
              "  two         the second\n"
              "\n"
              "'tavik group COMMAND --help' describes each.\n");
}
