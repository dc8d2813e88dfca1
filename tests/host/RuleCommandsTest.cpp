// tavik rule end to end: rules of each kind on an account and the global shields, their schedules and
// intervals, and INI imports that either land whole or not at all.
#include <filesystem>

#include "tests/host/ManageFixture.h"

using tavik::test::ManageTest;
using tavik::test::WriteFile;

namespace {

class RuleCommands : public ManageTest {
protected:
    void SetUp() override {
        ManageTest::SetUp();
        Ok({"account", "add", "Work", "--server", "pop.example.com"});
    }
};

const char kIni[] =
    "; shields exported from another machine\r\n"
    "[Casino]\r\n"
    "FilterName=Casino\r\n"
    "Mail Tag=Subject\r\n"
    "Action=contains\r\n"
    "Object=jackpot\r\n"
    "On Success=Delete\r\n"
    "Active On=Weekdays\r\n"
    "Spam Action=Delete\r\n"
    "\r\n"
    "[Pills]\r\n"
    "FilterName=Pills\r\n"
    "Object=pharmacy\r\n";

TEST_F(RuleCommands, RulesOfEachKindAreKeptWithTheirSchedules) {
    Ok({"rule", "add", "shield", "Casino", "--account", "work", "--tag", "Subject", "--text", "jackpot",
        "--schedule", "weekdays", "--from-time", "08:00", "--to-time", "18:30", "--enabled", "yes"});
    Ok({"rule", "add", "redirector", "Boss", "--account", "Work", "--recipient", "me@home.net", "--recipient",
        "archive@home.net", "--subject", "Boss: %SUBJECT%"});
    Ok({"rule", "add", "responder", "Away", "--account", "Work", "--from-date", "2026-12-20", "--to-date",
        "2027-01-03", "--text-file", "/srv/away.txt"});
    EXPECT_EQ(
        Ok({"rule", "list", "--account", "work", "--json"}),
        "[\n"
        "  {\"kind\": \"shield\", \"name\": \"Casino\", \"enabled\": true, \"schedule\": \"Weekdays\", "
        "\"hits\": 0},\n"
        "  {\"kind\": \"redirector\", \"name\": \"Boss\", \"enabled\": false, \"schedule\": \"All Days\", "
        "\"hits\": 0},\n"
        "  {\"kind\": \"responder\", \"name\": \"Away\", \"enabled\": false, \"schedule\": \"All Days\", "
        "\"hits\": 0}\n"
        "]\n");
    std::string casino = Ok({"rule", "show", "shield", "CASINO", "--account", "work"});
    // Each command signs in afresh: the interval switches come back from the stores, not from memory.
    EXPECT_NE(casino.find("use-times: yes\nfrom-time: 08:00\nto-time: 18:30\n"), std::string::npos) << casino;
    EXPECT_NE(casino.find("text: jackpot\n"), std::string::npos) << casino;
    std::string boss = Ok({"rule", "show", "redirector", "boss", "--account", "work", "--json"});
    EXPECT_NE(boss.find("\"recipients\": [\"me@home.net\", \"archive@home.net\"]"), std::string::npos)
        << boss;
    EXPECT_NE(boss.find("\"subject\": \"Boss: %SUBJECT%\""), std::string::npos) << boss;
    std::string away = Ok({"rule", "show", "responder", "away", "--account", "work"});
    EXPECT_NE(away.find("use-dates: yes\nfrom-date: 2026-12-20\nto-date: 2027-01-03\n"), std::string::npos)
        << away;

    Ok({"rule", "disable", "shield", "casino", "--account", "work"});
    Ok({"rule", "enable", "responder", "away", "--account", "work"});
    Ok({"rule", "set", "shield", "casino", "--account", "work", "--use-times", "no"});
    Ok({"rule", "set", "shield", "casino", "--account", "work", "--use-dates", "yes"});
    casino = Ok({"rule", "show", "shield", "casino", "--account", "work", "--json"});
    EXPECT_NE(casino.find("\"enabled\": false"), std::string::npos) << casino;
    EXPECT_NE(casino.find("\"use-dates\": true"), std::string::npos) << casino;
    EXPECT_NE(casino.find("\"use-times\": false"), std::string::npos) << casino;

    Ok({"rule", "remove", "redirector", "boss", "--account", "work"});
    EXPECT_EQ(Ok({"rule", "list", "--account", "work"}),
              "shield\tCasino\tdisabled\tWeekdays\nresponder\tAway\tenabled\tAll Days\n");
}

TEST_F(RuleCommands, GlobalShieldsAreShieldsOnly) {
    Ok({"rule", "add", "shield", "Everywhere", "--global", "--text", "viagra"});
    EXPECT_EQ(Ok({"rule", "list", "--global"}), "shield\tEverywhere\tdisabled\tAll Days\n");
    EXPECT_EQ(Ok({"rule", "list", "--account", "work"}), "") << "an account's rules are its own";
    Fails({"rule", "add", "redirector", "x", "--global"}, "shields only", 2);
    Fails({"rule", "list", "--global", "--account", "work"}, "either --account", 2);
    Fails({"rule", "list"}, "either --account", 2);
}

TEST_F(RuleCommands, BadRulesAndValuesAreRefused) {
    Ok({"rule", "add", "shield", "One", "--account", "work"});
    Fails({"rule", "add", "shield", "ONE", "--account", "work"}, "exists already");
    Fails({"rule", "add", "shield", "a\\b", "--account", "work"}, "'\\'");
    Fails({"rule", "add", "shield", std::string(256, 'r'), "--account", "work"}, "too long");
    Fails({"rule", "add", "gadget", "x", "--account", "work"}, "unknown rule kind", 2);
    Fails({"rule", "show", "shield", "Two", "--account", "work"}, "no shield named 'Two'");
    Fails({"rule", "set", "shield", "One", "--account", "work", "--schedule", "Fortnightly"}, "--schedule",
          2);
    Fails({"rule", "set", "shield", "One", "--account", "work", "--from-date", "2026-02-30"}, "--from-date",
          2);
    Fails({"rule", "set", "shield", "One", "--account", "work", "--to-time", "25:00"}, "--to-time", 2);
    Fails({"rule", "set", "shield", "One", "--account", "work", "--from-date", "2027-01-02", "--to-date",
           "2027-01-01"},
          "before", 2);
    Fails({"rule", "list", "--account", "home"}, "no account named 'home'");
    EXPECT_EQ(Ok({"rule", "list", "--account", "work"}), "shield\tOne\tdisabled\tAll Days\n");
}

TEST_F(RuleCommands, IniImportLandsWholeOrNotAtAll) {
    const std::string ini = m_dir.file("shields.ini");
    WriteFile(ini, kIni);
    EXPECT_EQ(Ok({"rule", "import-ini", "shield", ini, "--account", "work"}),
              "imported shield Casino\nimported shield Pills\n");
    std::string casino = Ok({"rule", "show", "shield", "casino", "--account", "work"});
    EXPECT_NE(casino.find("schedule: Weekdays\n"), std::string::npos) << casino;
    EXPECT_NE(casino.find("spam-action: Delete\n"), std::string::npos) << casino;
    Fails({"rule", "import-ini", "shield", ini, "Pills", "--account", "work"}, "exists already");
    // A file named as a user types it, relative to the working directory.
    const std::filesystem::path here = std::filesystem::current_path();
    std::filesystem::current_path(m_dir.path());
    tavik::test::Outcome relative = tavik::test::RunTavikLine(
        {"rule", "import-ini", "redirector", "shields.ini", "Pills", "--account", "work"});
    std::filesystem::current_path(here);
    EXPECT_EQ(relative.rc, 0) << relative.err;
    EXPECT_NE(Ok({"rule", "show", "redirector", "pills", "--account", "work"}).find("text: pharmacy\n"),
              std::string::npos);

    Ok({"account", "add", "Home", "--server", "pop.home"});
    WriteFile(m_dir.file("bad.ini"), std::string(kIni) + "this line is junk\r\n");
    Fails({"rule", "import-ini", "shield", m_dir.file("bad.ini"), "--account", "home"},
          "bad.ini:14: expected");
    WriteFile(m_dir.file("open.ini"), "[Casino\nFilterName=x\n");
    Fails({"rule", "import-ini", "shield", m_dir.file("open.ini"), "--account", "home"}, "open.ini:1:");
    WriteFile(m_dir.file("nameless.ini"), "[A]\nFilterName=Fine\n[B]\nObject=x\n");
    Fails({"rule", "import-ini", "redirector", m_dir.file("nameless.ini"), "--account", "home"},
          "[B] has no FilterName");
    Fails({"rule", "import-ini", "shield", ini, "Dice", "--account", "home"}, "no section [Dice]");
    Fails({"rule", "import-ini", "shield", m_dir.file("none.ini"), "--account", "home"}, "cannot read");
    EXPECT_EQ(Ok({"rule", "list", "--account", "home"}), "") << "a refused import adds no rule";
}

}  // namespace
