// What a person sees of a check: the progress display on a terminal and in a file, the result table, the
// summary and exit codes, and the action log with `tavik log`.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "host/ActionLog.h"
#include "host/CheckReport.h"
#include "host/Dispatch.h"
#include "host/RuleMatcher.h"
#include "platform/CTime.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace tavik::host {
namespace {

using tavik::test::ReadFile;
using tavik::test::TempDir;
using tavik::test::WriteFile;

std::string Drain(FILE* f) {
    std::string text;
    std::rewind(f);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++n;
    return n;
}

TEST(CheckReport, PlainProgressIsAFewWholeLines) {
    FILE* out = std::tmpfile();
    {
        ProgressDisplay progress(out, false);
        progress.Start("work", 200);
        for (size_t i = 1; i <= 200; ++i) progress.Advance(i);
        progress.Line("a\rstatus\x1b[2J");
        progress.Finish("3 junk");
        progress.Start("home", 0);
    }  // the destructor ends the open bar
    EXPECT_EQ(Drain(out),
              "work: 200 messages\nwork: 20 of 200\nwork: 40 of 200\nwork: 60 of 200\nwork: 80 of 200\n"
              "work: 100 of 200\nwork: 120 of 200\nwork: 140 of 200\nwork: 160 of 200\nwork: 180 of 200\n"
              "a status\\x1b[2J\nwork: 200 of 200, 3 junk\nhome\nhome: 0\n");
}

TEST(CheckReport, TerminalProgressRedrawsOnlyWhenItChanges) {
    FILE* out = std::tmpfile();
    ProgressDisplay progress(out, true);
    progress.Start("Jürgen's \x1b]0;title\x07 account with a long name", 10000);
    for (size_t i = 1; i <= 10000; ++i) {
        progress.Advance(i);
        if (i == 5000) progress.Line("halfway");
    }
    progress.Finish();
    const std::string text = Drain(out);
    EXPECT_LE(Count(text, "\r"), 110u);               // about one redraw per percent, not one per message
    EXPECT_EQ(text.find('\x07'), std::string::npos);  // nothing from a name reaches the terminal raw
    EXPECT_NE(text.find("\r\x1b[Khalfway\n"), std::string::npos);
    EXPECT_NE(text.find("[###############...............] 5000/10000"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 16), " 10000 of 10000\n");
    EXPECT_EQ(Count(text, "\n"), 2u);
}

TEST(CheckReport, ColumnsTableSummaryAndExitCodes) {
    EXPECT_EQ(FitColumn("abc", 5), "abc  ");
    EXPECT_EQ(FitColumn("äöüäöü", 5), "äö...");  // characters, not bytes, and never half of one
    EXPECT_EQ(FitColumn("abcdef", 6, false), "abcdef");
    EXPECT_EQ(FitColumn("abcdefg", 6, false), "abc...");

    FILE* out = std::tmpfile();
    PrintResultTable(
        {{"work", 0xAB, "spam@x.example", "Cheap\tpills\r\n", Verdict::kJunk, "Junk shield", "Delete"},
         {"work", 0x1, "ann@example.org", "Lunch", Verdict::kFriend, "", ""}},
        true, out);
    const std::string table = Drain(out);
    EXPECT_EQ(table.rfind("dry run: nothing below was done\naccount       id        verdict", 0), 0u)
        << table;
    EXPECT_NE(table.find("work          000000AB  junk           Junk shield       would Delete        "
                         "spam@x.example              Cheap pills \n"),
              std::string::npos)
        << table;
    EXPECT_NE(table.find("00000001  friend         -                 -  "), std::string::npos) << table;

    CheckTotals t;
    t.messages = 40;
    t.fresh = 7;
    t.junk = 3;
    t.deleted = 2;
    t.forwarded = 1;
    t.kept = 4;
    EXPECT_EQ(SummaryLine(t, false), "40 messages, 7 new: 3 junk, 2 deleted, 1 forwarded, 4 kept");
    EXPECT_EQ(SummaryLine(t, true),
              "40 messages, 7 new: 3 junk, 2 would be deleted, 1 would be forwarded, 4 kept");
    EXPECT_EQ(CheckExitCode(t, false), kExitNewMail);
    EXPECT_EQ(CheckExitCode(t, true), kExitStopped);
    t.errors = 1;
    EXPECT_EQ(SummaryLine(t, false), "40 messages, 7 new: 3 junk, 2 deleted, 1 forwarded, 4 kept; 1 error");
    EXPECT_EQ(CheckExitCode(t, false), kExitErrors);
    CheckTotals quiet;
    quiet.messages = 1;
    EXPECT_EQ(SummaryLine(quiet, false), "1 message, 0 new");
    EXPECT_EQ(CheckExitCode(quiet, false), kExitNothingNew);
    quiet.junk = quiet.fresh = 1;
    EXPECT_EQ(CheckExitCode(quiet, false), kExitNothingNew);  // junk is not new mail
}

ActionRecord Hostile() {
    ActionRecord r;
    r.when = 1700000000;
    r.account = "work";
    r.id = 0xDEADBEEF;
    r.messageId = "<a@b>";
    r.sender = "Evil\t<evil@x>";
    r.subject = "line\r\nbreak \x1b[31mred\\x41 back\\slash";
    r.rule = "Junk";
    r.action = "Delete";
    return r;
}

TEST(ActionLogTest, LinesEscapeEverythingThatCouldBreakThemAndComeBackWhole) {
    const ActionRecord r = Hostile();
    const std::string line = FormatActionLine(r);
    for (char c : line) EXPECT_FALSE(static_cast<unsigned char>(c) < 0x20 && c != '\t') << line;
    const auto fields = SplitActionLine(line);
    ASSERT_TRUE(fields.has_value()) << line;
    EXPECT_EQ((*fields)[0], CTime(r.when).Format("%Y-%m-%d %H:%M:%S %z").str());
    EXPECT_EQ((*fields)[2], "DEADBEEF");
    EXPECT_EQ((*fields)[4], "Evil\\x09<evil@x>");
    EXPECT_EQ(UnescapeField((*fields)[4]), r.sender);
    EXPECT_EQ(UnescapeField((*fields)[5]), r.subject);
    EXPECT_EQ(UnescapeField((*fields)[7]), "Delete");
    EXPECT_FALSE(SplitActionLine("too\tfew\tfields").has_value());
}

class ActionLogFiles : public ::testing::Test {
protected:
    std::string Path() const { return m_dir.file("state/tavikmail/actions.log"); }
    TempDir m_dir;
};

TEST_F(ActionLogFiles, AppendsOwnerOnlyAndRotates) {
    const mode_t old = umask(0);
    ActionLog log(Path());
    std::string error;
    ASSERT_TRUE(log.Append(Hostile(), &error)) << error;
    ActionRecord second = Hostile();
    second.account = "home";
    ASSERT_TRUE(log.Append(second, &error)) << error;
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(Path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(m_dir.file("state/tavikmail").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_EQ(ReadFile(Path()), FormatActionLine(Hostile()) + "\n" + FormatActionLine(second) + "\n");

    // A file someone made readable is narrowed; a full one moves aside.
    std::filesystem::permissions(Path(), std::filesystem::perms::owner_read |
                                             std::filesystem::perms::owner_write |
                                             std::filesystem::perms::others_read);
    WriteFile(Path(), std::string(ActionLog::kRotateBytes + 1, 'x'));
    ASSERT_TRUE(log.Append(second, &error)) << error;
    ASSERT_EQ(stat(Path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(ReadFile(Path()), FormatActionLine(second) + "\n");
    EXPECT_EQ(ReadFile(Path() + ".1").size(), ActionLog::kRotateBytes + 1);
    // A log removed while a check writes to it comes back owner-only.
    std::filesystem::remove(Path());
    const mode_t open = umask(0);
    ASSERT_TRUE(log.Append(second, &error)) << error;
    umask(open);
    ASSERT_EQ(stat(Path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    WriteFile(m_dir.file("blocker"), "");
    ActionLog blocked(m_dir.file("blocker/actions.log"));
    EXPECT_FALSE(blocked.Append(second, &error));
    EXPECT_EQ(error.rfind("cannot create " + m_dir.file("blocker"), 0), 0u) << error;
    EXPECT_FALSE(ActionLog("").Append(second, &error));
    EXPECT_EQ(error, "no place for the action log: set XDG_STATE_HOME or HOME");
}

// The log stays open through a check; what others do to the file meanwhile must not swallow its lines.
TEST_F(ActionLogFiles, LinesFollowTheFileWhenOthersMoveOrCutIt) {
    ActionLog log(Path());
    ActionRecord line = Hostile();
    ASSERT_TRUE(log.Append(line));
    ASSERT_TRUE(log.Append(line));
    const std::string two = ReadFile(Path());
    ASSERT_EQ(two, FormatActionLine(line) + "\n" + FormatActionLine(line) + "\n");

    // Another check moved it aside and started the next file.
    std::filesystem::rename(Path(), Path() + ".1");
    WriteFile(Path(), "other\n");
    line.account = "moved";
    ASSERT_TRUE(log.Append(line));
    EXPECT_EQ(ReadFile(Path()), "other\n" + FormatActionLine(line) + "\n");
    EXPECT_EQ(ReadFile(Path() + ".1"), two);

    // Someone emptied it.
    WriteFile(Path(), "");
    line.account = "emptied";
    ASSERT_TRUE(log.Append(line));
    EXPECT_EQ(ReadFile(Path()), FormatActionLine(line) + "\n");
}

TEST_F(ActionLogFiles, WhereTheLogLives) {
    const char* state = std::getenv("XDG_STATE_HOME");
    const std::string savedState = state ? state : "";
    const std::string home = std::getenv("HOME") ? std::getenv("HOME") : "";
    setenv("XDG_STATE_HOME", "/srv/state", 1);
    EXPECT_EQ(ActionLogPath(), "/srv/state/tavikmail/actions.log");
    setenv("XDG_STATE_HOME", "relative/state", 1);  // not absolute: ignored
    setenv("HOME", "/home/ann", 1);
    EXPECT_EQ(ActionLogPath(), "/home/ann/.local/state/tavikmail/actions.log");
    unsetenv("XDG_STATE_HOME");
    unsetenv("HOME");
    EXPECT_EQ(ActionLogPath(), "");
    setenv("HOME", home.c_str(), 1);
    if (state) setenv("XDG_STATE_HOME", savedState.c_str(), 1);
}

class LogCommand : public ActionLogFiles {
protected:
    void SetUp() override {
        setenv("TAVIK_REGISTRY", m_dir.file("registry.db").c_str(), 1);
        setenv("TAVIK_DATA", m_dir.file("data").c_str(), 1);
        setenv("XDG_STATE_HOME", m_dir.file("state").c_str(), 1);
        RegSetStorePath(nullptr);
    }
    void TearDown() override { unsetenv("XDG_STATE_HOME"); }

    struct Outcome {
        int rc;
        std::string out, err;
    };
    Outcome Tavik(const std::vector<std::string>& args) {
        FILE* out = std::tmpfile();
        FILE* err = std::tmpfile();
        const int rc = RunTavik(args, out, err);
        return {rc, Drain(out), Drain(err)};
    }
};

TEST_F(LogCommand, ShowsFiltersAndNeverPassesControlCharacters) {
    Outcome empty = Tavik({"log"});
    EXPECT_EQ(empty.rc, 0);
    EXPECT_EQ(empty.out, "nothing logged yet (" + Path() + ")\n");
    EXPECT_EQ(Tavik({"log", "--path"}).out, Path() + "\n");

    ActionLog log(Path());
    for (int i = 0; i < 5; ++i) {
        ActionRecord r = Hostile();
        r.account = i % 2 ? "Home" : "work";
        r.rule = "rule " + std::to_string(i);
        ASSERT_TRUE(log.Append(r));
    }
    Outcome all = Tavik({"log"});
    EXPECT_EQ(all.rc, 0);
    EXPECT_EQ(Count(all.out, "\n"), 6u);  // the heading and five actions
    EXPECT_EQ(all.out.find('\x1b'), std::string::npos);
    EXPECT_NE(all.out.find("DEADBEEF  Delete          rule 0            Evil\\x09<evil@x>"),
              std::string::npos)
        << all.out;
    Outcome last = Tavik({"log", "--account", "HOME", "--last", "1"});
    EXPECT_EQ(Count(last.out, "\n"), 2u);
    EXPECT_NE(last.out.find("rule 3"), std::string::npos) << last.out;
    Outcome raw = Tavik({"log", "--raw", "--last", "2"});
    EXPECT_EQ(raw.out.find("time"), std::string::npos);
    EXPECT_EQ(Count(raw.out, "\t"), 14u);
    EXPECT_EQ(Tavik({"log", "--last", "0"}).rc, 2);
}

TEST_F(LogCommand, HelpOnRules) {
    Outcome help = Tavik({"help", "rules"});
    EXPECT_EQ(help.rc, 0);
    EXPECT_EQ(help.out, RulesHelpText());
    EXPECT_NE(Tavik({"help"}).out.find("  rules          how rules pick messages"), std::string::npos);
}

}  // namespace
}  // namespace tavik::host
