// tavik account, friends|spammers|folders and config, end to end: what one command stores the next one
// finds, and bad input stores nothing.
#include <filesystem>

#include "messages/CStorageManager.h"

#include "tests/host/ManageFixture.h"

using tavik::test::ManageTest;
using tavik::test::ReadFile;
using tavik::test::WriteFile;

namespace {

class AccountCommands : public ManageTest {};

TEST_F(AccountCommands, AddedAccountsListAndShowAsGoldenJson) {
    EXPECT_EQ(Ok({"account", "list", "--json"}), "[]\n");
    Ok({"account", "add", "Work", "--server", "pop.example.com", "--login", "joe", "--email",
        "joe@example.com", "--real-name", "Joe \"J\" Doe"});
    WriteFile(m_dir.file("pw"), "s3cret\nignored\n");
    Ok({"account", "add", "home", "--server", "pop.home.net", "--set-password", "--account-password-file",
        m_dir.file("pw"), "--disabled", "yes", "--timeout", "30"});
    EXPECT_EQ(
        Ok({"account", "list", "--json"}),
        "[\n"
        "  {\"name\": \"home\", \"email\": \"\", \"server\": \"pop.home.net\", \"login\": \"\", "
        "\"disabled\": true},\n"
        "  {\"name\": \"Work\", \"email\": \"joe@example.com\", \"server\": \"pop.example.com\", \"login\": "
        "\"joe\", \"disabled\": false}\n"
        "]\n");
    std::string home = Ok({"account", "show", "HOME", "--json"});
    EXPECT_NE(home.find("\"password\": \"set\""), std::string::npos) << home;
    EXPECT_EQ(home.find("s3cret"), std::string::npos) << "a password is never shown";
    EXPECT_NE(home.find("\"timeout\": 30,"), std::string::npos) << home;
    std::string work = Ok({"account", "show", "work"});
    EXPECT_NE(work.find("real-name: Joe \"J\" Doe\n"), std::string::npos) << work;
    EXPECT_NE(work.find("password: not set\n"), std::string::npos) << work;

    Ok({"account", "set", "work", "--smtp", "smtp.example.com", "--leave-copy", "off"});
    work = Ok({"account", "show", "Work", "--json"});
    EXPECT_NE(work.find("\"smtp\": \"smtp.example.com\""), std::string::npos) << work;
    EXPECT_NE(work.find("\"leave-copy\": false"), std::string::npos) << work;
    EXPECT_NE(work.find("\"login\": \"joe\""), std::string::npos) << "untouched settings stay";

    Ok({"account", "remove", "HOME"});
    EXPECT_EQ(Ok({"account", "list"}), "Work\tjoe@example.com\tjoe@pop.example.com\n");
}

TEST_F(AccountCommands, BadNamesAndValuesStoreNothing) {
    Ok({"account", "add", "Work", "--server", "a"});
    Fails({"account", "add", "WORK", "--server", "b"}, "exists already");
    Fails({"account", "add", "a\\b"}, "'\\'");
    Fails({"account", "add", std::string(32, 'x')}, "too long");
    Fails({"account", "add", "tab\there"}, "control character");
    Fails({"account", "show", "nobody"}, "no account named 'nobody' (accounts: Work)");
    Fails({"account", "set", "work", "--timeout", "soon"}, "timeout", 2);
    Fails({"account", "set", "work", "--filtering", "maybe"}, "yes or no", 2);
    Fails({"account", "set", "work", "--set-password", "--account-password-file", m_dir.file("missing")},
          "cannot read the password file");
    Fails({"account", "add", "x", "--password", "p"}, "password", 2);
    EXPECT_EQ(Ok({"account", "list"}), "Work\t\t@a\n");
    std::string work = Ok({"account", "show", "work"});
    EXPECT_NE(work.find("timeout: 90\n"), std::string::npos) << work;
    EXPECT_NE(work.find("password: not set\n"), std::string::npos) << work;
}

// The connection security of each server: automatic until set, kept by the next command, a bad word
// changing nothing.
TEST_F(AccountCommands, SecurityIsAutomaticUntilSet) {
    Ok({"account", "add", "Work", "--server", "pop.example.com", "--smtp-security", "starttls"});
    std::string work = Ok({"account", "show", "work"});
    EXPECT_NE(work.find("security: auto\n"), std::string::npos) << work;
    EXPECT_NE(work.find("smtp-security: starttls\n"), std::string::npos) << work;
    Ok({"account", "set", "work", "--security", "implicit"});
    Fails({"account", "set", "work", "--security", "tls", "--timeout", "5"},
          "--security takes auto, none, starttls or implicit, not 'tls'", 2);
    work = Ok({"account", "show", "work", "--json"});
    EXPECT_NE(work.find("\"security\": \"implicit\","), std::string::npos) << work;
    EXPECT_NE(work.find("\"smtp-security\": \"starttls\","), std::string::npos) << work;
    EXPECT_NE(work.find("\"timeout\": 90,"), std::string::npos) << "the failed set changed nothing";
    Ok({"account", "set", "work", "--security", "auto", "--smtp-security", "none"});
    work = Ok({"account", "show", "work"});
    EXPECT_NE(work.find("security: auto\n"), std::string::npos) << work;
    EXPECT_NE(work.find("smtp-security: none\n"), std::string::npos) << work;
}

TEST_F(AccountCommands, ListsKeepEntriesOnceIgnoringCase) {
    Ok({"account", "add", "Work", "--server", "a"});
    EXPECT_EQ(Ok({"friends", "add", "work", "alice@x.org", "bob@y.org", "ALICE@X.ORG"}), "added 2 entries\n");
    Ok({"spammers", "add", "work", "spam.biz"});
    EXPECT_EQ(Ok({"friends", "list", "work", "--json"}), "[\"alice@x.org\", \"bob@y.org\"]\n");
    Fails({"friends", "remove", "work", "bob@y.org", "carol@z.org"}, "'carol@z.org' is not in the list");
    EXPECT_EQ(Ok({"friends", "list", "work"}), "alice@x.org\nbob@y.org\n") << "a failed remove removes none";
    Ok({"friends", "remove", "work", "BOB@y.org"});
    EXPECT_EQ(Ok({"friends", "list", "work"}), "alice@x.org\n");
    EXPECT_EQ(Ok({"spammers", "list", "work", "--json"}), "[\"spam.biz\"]\n");
    EXPECT_EQ(Ok({"folders", "list", "work", "--json"}), "[\"Inbox\", \"Sent\", \"Trash\"]\n");
    Ok({"folders", "add", "work", "Lists"});
    EXPECT_EQ(Ok({"folders", "list", "work"}), "Inbox\nSent\nTrash\nLists\n");
    Fails({"friends", "add", "work", ""}, "empty entry");
    Fails({"friends", "list", "play"}, "no account named 'play'");
}

TEST_F(AccountCommands, ConfigReadsAndWritesBothOptionSets) {
    EXPECT_EQ(Ok({"config", "get", "configuration.check-interval"}), "10\n");
    Ok({"config", "set", "configuration.check-interval", "25"});
    Ok({"config", "set", "environment.log-file", "/tmp/tavik.log"});
    EXPECT_EQ(Ok({"config", "get", "configuration.check-interval"}), "25\n");
    std::string all = Ok({"config", "get", "--json"});
    EXPECT_NE(all.find("\"configuration.check-interval\": 25,"), std::string::npos) << all;
    EXPECT_NE(all.find("\"environment.log-file\": \"/tmp/tavik.log\","), std::string::npos) << all;
    Fails({"config", "set", "configuration.check-interval", "12x"}, "whole number");
    Fails({"config", "set", "environment.nothing", "1"}, "no setting named 'environment.nothing'");
    Fails({"config", "set", "configuration.database", "x"}, "cannot be set");
    EXPECT_EQ(Ok({"config", "get", "configuration.check-interval"}), "25\n");
}

TEST_F(AccountCommands, DamagedOrForeignSettingsFileIsLeftAlone) {
    Ok({"account", "add", "Work", "--server", "a"});
    const std::string settings = (m_data.path() / "Default.tvs").string();
    const std::string kept = ReadFile(settings);
    WriteFile(settings, "not a compound file");
    Fails({"account", "list"}, "is damaged");
    Fails({"account", "add", "Other"}, "is damaged");
    EXPECT_EQ(ReadFile(settings), "not a compound file") << "nothing written over it";

    WriteFile(settings, kept);
    EXPECT_EQ(Ok({"account", "list"}), "Work\t\t@a\n");
    // The file another user left under this user's name.
    std::filesystem::copy_file(settings, m_dir.file("saved.tvs"));
    {
        CStorageManager file(settings.c_str(), true);
        file.WriteString("UserName", "ann");
    }
    Fails({"account", "list"}, "belongs to the user 'ann'");

    // A registry store that is not one: nothing may report success over it.
    const std::string store = m_dir.file("registry.db");
    RegCloseStore();
    WriteFile(store, "not a database, not at all");
    for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
             {"account", "list"}, {"user", "add", "bob"}, {"account", "add", "Home"}})
        Fails(line, "cannot use the registry store " + store);
    EXPECT_EQ(ReadFile(store), "not a database, not at all");
}

}  // namespace
