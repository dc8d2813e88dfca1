// tavik user end to end, and the round trip a new user makes: a user with a password, two accounts,
// friends, a shield imported from an INI file and contacts from a vCard, all found again after signing
// out and in.
#include <filesystem>

#include "tests/host/ManageFixture.h"

using tavik::test::ManageTest;
using tavik::test::ReadFile;
using tavik::test::WriteFile;

namespace {

class UserCommands : public ManageTest {
protected:
    std::string PasswordFile(const std::string& name, const std::string& password) {
        WriteFile(m_dir.file(name), password + "\n");
        return m_dir.file(name);
    }
};

TEST_F(UserCommands, UsersPasswordsAndTheDefault) {
    EXPECT_EQ(Ok({"user", "list", "--json"}),
              "[\n  {\"name\": \"Default\", \"default\": true, \"password\": false}\n]\n")
        << "the first start makes the default user";
    Ok({"user", "add", "ann", "--set-password", "--new-password-file", PasswordFile("new", "open sesame")});
    Fails({"user", "add", "ANN"}, "exists already");
    Fails({"user", "add", "a\\b"}, "'\\'");
    Fails({"user", "add", std::string(201, 'u')}, "too long");
    Fails({"user", "add", "bob", "--password", "x"}, "password", 2);
    EXPECT_EQ(Ok({"user", "list"}), "ann\t\tpassword\nDefault\tdefault\t\n");

    // Signing in as ann needs her password; a wrong one stops before anything is read or written.
    Fails({"account", "list", "--user", "ann", "--password-file", PasswordFile("wrong", "guess")},
          "wrong password for the user 'ann'");
    setenv("TAVIK_PASSWORD", "open sesame", 1);
    Ok({"account", "add", "Mine", "--server", "pop.ann", "--user", "ANN"});
    unsetenv("TAVIK_PASSWORD");
    EXPECT_EQ(Ok({"account", "list"}), "") << "the default user has accounts of its own";
    Fails({"account", "list", "--user", "nobody"}, "no user named 'nobody' (users: ann, Default)");

    Fails({"user", "passwd", "ann", "--password-file", PasswordFile("wrong2", "guess"), "--new-password-file",
           PasswordFile("new2", "x")},
          "wrong password");
    Ok({"user", "passwd", "ann", "--password-file", m_dir.file("new"), "--clear"});
    EXPECT_EQ(Ok({"account", "list", "--user", "ann"}), "Mine\t\t@pop.ann\n") << "no password asked any more";

    Ok({"user", "default", "ANN"});
    EXPECT_EQ(Ok({"account", "list"}), "Mine\t\t@pop.ann\n") << "ann is the default now";
    Fails({"user", "remove", "ann"}, "is the default user");
    Ok({"user", "default", "Default"});
    EXPECT_EQ(Ok({"user", "remove", "ann"}), "removed user ann with its accounts and files\n");
    EXPECT_EQ(Ok({"user", "list"}), "Default\tdefault\t\n");
    EXPECT_FALSE(std::filesystem::exists(m_data.path() / "ann.tvs"));
    Ok({"user", "add", "ann"});
    EXPECT_EQ(Ok({"account", "list", "--user", "ann"}), "") << "a new ann starts empty";
}

TEST_F(UserCommands, RoundTripOfANewUser) {
    const std::string pw = PasswordFile("pw", "correct horse");
    Ok({"user", "add", "carol", "--set-password", "--new-password-file", pw});
    auto as = [&](std::vector<std::string> args) {
        args.insert(args.end(), {"--user", "carol", "--password-file", pw});
        return args;
    };
    Ok(as({"account", "add", "Work", "--server", "pop.work.example", "--login", "carol", "--email",
           "carol@work.example"}));
    WriteFile(m_dir.file("smtp"), "smtp secret\n");
    Ok(as({"account", "add", "Home", "--server", "pop.home.example", "--smtp", "smtp.home.example",
           "--set-smtp-password", "--smtp-password-file", m_dir.file("smtp")}));
    Ok(as({"friends", "add", "work", "boss@work.example", "team@work.example"}));
    WriteFile(m_dir.file("shield.ini"),
              "[Lottery]\nFilterName=Lottery\nObject=you have won\nActive On=Weekends\n");
    Ok(as({"rule", "import-ini", "shield", m_dir.file("shield.ini"), "--account", "home"}));
    WriteFile(
        m_dir.file("people.vcf"),
        "BEGIN:VCARD\r\nVERSION:4.0\r\nFN:Dan Ng\r\nN:Ng;Dan;;;\r\nEMAIL:dan@ng.example\r\nEND:VCARD\r\n");
    Ok(as({"contact", "import", "home", m_dir.file("people.vcf")}));

    // Signed out: every command above was a session of its own. Close the registry store too, as a
    // new process would find it.
    RegCloseStore();
    RegSetStorePath(nullptr);
    Fails({"account", "list", "--user", "carol", "--password-file", PasswordFile("bad", "Correct horse")},
          "wrong password");
    EXPECT_EQ(Ok(as({"account", "list", "--json"})),
              "[\n"
              "  {\"name\": \"Home\", \"email\": \"\", \"server\": \"pop.home.example\", \"login\": \"\", "
              "\"disabled\": "
              "false},\n"
              "  {\"name\": \"Work\", \"email\": \"carol@work.example\", \"server\": \"pop.work.example\", "
              "\"login\": "
              "\"carol\", \"disabled\": false}\n"
              "]\n");
    EXPECT_NE(Ok(as({"account", "show", "home"})).find("smtp-password: set\n"), std::string::npos);
    EXPECT_EQ(Ok(as({"friends", "list", "work"})), "boss@work.example\nteam@work.example\n");
    EXPECT_EQ(Ok(as({"rule", "list", "--account", "home"})), "shield\tLottery\tdisabled\tWeekends\n");
    std::string contacts = Ok(as({"contact", "list", "home"}));
    EXPECT_NE(contacts.find("\tDan Ng\tdan@ng.example\n"), std::string::npos) << contacts;
    EXPECT_EQ(Ok({"account", "list"}), "") << "none of it is the default user's";
}

}  // namespace
