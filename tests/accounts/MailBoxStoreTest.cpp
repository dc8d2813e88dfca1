// Accounts in real compound files: the stored layout byte for byte, the round trip with progress and
// status messages in order, the older layout and its migration, the message file made, lost and
// repaired, the modified marker and the index, enumeration, damaged stored data, and the files as
// python3-olefile reads them.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "contacts/CAddressEntry.h"
#include "messages/CStorageManagerException.h"
#include "tests/accounts/MailBoxTestSupport.h"

using namespace tavik::test;
namespace fs = std::filesystem;

namespace {

constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

std::string LE(std::initializer_list<DWORD> words) {
    std::string bytes;
    for (DWORD w : words)
        for (int k = 0; k < 4; ++k) bytes += static_cast<char>(w >> (8 * k));
    return bytes;
}

DWORD Word(const std::string& bytes, size_t index) {
    auto p = reinterpret_cast<const unsigned char*>(bytes.data() + 4 * index);
    return p[0] | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
}

class Store : public AccountFixture {
protected:
    void TearDown() override {
        Release();
        AccountFixture::TearDown();
    }
    // Destroys every account the test made, unloading their messages first.
    void Release() {
        for (CMailBoxProfile* p : m_list) {
            p->UnloadMessages();
            delete p;
        }
        m_list.clear();
        if (m_profile) m_profile->UnloadMessages();
        m_profile.reset();
    }
    CMailBoxProfile& Fresh(const char* name) {
        m_profile = std::make_unique<CMailBoxProfile>();
        Name(*m_profile, name);
        m_profile->SetProfileUserName("alice");
        return *m_profile;
    }
    // The account saved (with messages) and every handle closed, the settings file committed.
    void SaveAndClose(CMailBoxProfile& profile, CMessageList::_tagLoadProgressData* progress = nullptr) {
        profile.SaveStorageData(Accounts(), progress, true);
        Release();
        CloseAccounts();
        OpenAccounts();
    }
    // A stream of an account's sub-storage, read while nothing holds the account open.
    std::string Stream(const char* account, const char* stream) {
        CStorageManager sub;
        sub.OpenSubStorage(Accounts(), account, kMode, false, false);
        std::string bytes;
        sub.ReadBytes(stream, bytes);
        return bytes;
    }
    std::set<std::string> Elements(IStorage* storage) {
        std::set<std::string> names;
        IEnumSTATSTG* it = nullptr;
        if (FAILED(storage->EnumElements(0, nullptr, 0, &it))) return names;
        STATSTG stat;
        ULONG got = 0;
        while (it->Next(1, &stat, &got) == S_OK && got == 1) {
            names.insert(std::string(stat.type == STGTY_STORAGE ? "+" : "") + CString(stat.pwcsName).str());
            CoTaskMemFree(stat.pwcsName);
        }
        it->Release();
        return names;
    }
    std::set<std::string> AccountElements(const char* account) {
        CStorageManager sub;
        sub.OpenSubStorage(Accounts(), account, kMode, false, false);
        return Elements(sub.GetStorage());
    }
    void Enumerate(CMessageList::_tagLoadProgressData* progress = nullptr, bool messages = true,
                   CMailBoxProfile::READ_TYPE type = CMailBoxProfile::READ_FULL) {
        CMailBoxProfile::EnumStorage(Accounts(), m_list, "alice", progress, messages, type);
    }
    CMailBoxProfile* Listed(const char* name) {
        auto it = CMailBoxProfile::FindProfile(m_list, CString(name));
        return it == m_list.end() ? nullptr : *it;
    }
    std::string ExpectedDataFile(CMailBoxProfile& profile) {
        return DataDirectory() + "alice-" + profile.GetAccountName().str() + "-" +
               std::to_string(profile.GetSignature()) + ".tvd";
    }
    // A filled account: lists, one rule of each kind, three messages and two contacts.
    CMailBoxProfile& Filled(const char* name) {
        CMailBoxProfile& p = Fresh(name);
        p.SetAdvancedData(1, 0, 1, 1, 0, 128, 1, 45);
        p.SetExtraData(3, 500, 0);
        p.SetSignature(99);
        p.SetFriendList(Strings({"friend@example.org", "example.com"}));
        p.SetSpamList(Strings({"spam.example"}));
        p.SetFolderList(Strings({"Inbox", "Sent", "Trash", "Work"}));
        p.GetAutoResponders().emplace_back();
        p.GetAutoResponders().back().ResetValues();
        p.GetAutoResponders().back().SetFilterData("Away", "Header", "contains", "x", "Do Nothing",
                                                   "All Days", 0, 0, 0);
        p.GetRedirectors().emplace_back();
        p.GetRedirectors().back().ResetValues();
        p.GetRedirectors().back().SetFilterData("Fwd", "Header", "contains", "y", "Do Nothing", "All Days", 0,
                                                0, 0);
        p.GetSpamShields().emplace_back();
        p.GetSpamShields().back().ResetValues();
        p.GetSpamShields().back().SetFilterData("Junk", "Header", "contains", "z", "Do Nothing", "All Days",
                                                0, 0, 0);
        p.InitializeStorages(Accounts(), name);
        for (DWORD id = 1; id <= 3; ++id) {
            m_clock.AdvanceTicks(3);
            p.AddMessage(MakeMessage(id, "sender@example.org"), true);
        }
        for (int c = 0; c < 2; ++c) {
            m_clock.AdvanceTicks(3);
            auto* contact = new CAddressEntry;
            contact->SetCompany(CString("Company ") + char('A' + c));
            p.GetAddressList().push_back(contact);
        }
        return p;
    }

    std::unique_ptr<CMailBoxProfile> m_profile;
    std::list<CMailBoxProfile*> m_list;
};

TEST_F(Store, LayoutRoundTripAndTheOrderOfNotifications) {
    CMailBoxProfile& p = Filled("Home");
    const CString dataFile = p.GetDataFile();
    EXPECT_EQ(std::string(dataFile), ExpectedDataFile(p));
    EXPECT_TRUE(fs::exists(dataFile.str()));
    const std::string strings = p.BuildMailBoxStringData().str();
    std::string index;
    for (CMessageList* m : p.GetMessageList()) index += m->GetStorageName().str() + ",";

    ProgressRecorder window;
    auto progress = window.Progress();
    SaveAndClose(p, &progress);
    const char* statuses[] = {"Autoresponders", "Redirectors", "Message Filters", "Friends List",
                              "Spammer List",   "Folder List", "Cached Messages", "Contact List"};
    std::vector<std::string> expected;
    for (const char* s : statuses) expected.push_back(std::string("status 0 Account: Home - Updating ") + s);
    EXPECT_EQ(window.Events(), expected);

    EXPECT_EQ(AccountElements("Home"),
              (std::set<std::string>{"+AutoResponder", "+Contacts", "+Messages", "+Redirector", "+Shields",
                                     "Cache Enemies", "Cache Folders", "Cache Friends", "Message Index",
                                     "Numeric Data", "String Data", "String Data Length"}));
    const std::string numeric = Stream("Home", "Numeric Data");
    ASSERT_EQ(numeric.size(), 88u);
    EXPECT_EQ(numeric, LE({0, 1, 0, 1, 1, 0, 128, 1, 45, 0, 500, 3, 0, 0, 99, 0, 0, 0, 0, 0, 3, 0}));
    const std::string lengths = Stream("Home", "String Data Length");
    ASSERT_EQ(lengths.size(), 60u);
    EXPECT_EQ(Word(lengths, 0), 4u);                     // "Home"
    EXPECT_EQ(Word(lengths, 8), 5u);                     // "Inbox"
    EXPECT_EQ(Word(lengths, 14), dataFile.GetLength());  // the message file's path
    EXPECT_EQ(Stream("Home", "String Data"), strings);
    EXPECT_EQ(Stream("Home", "Message Index"), index);
    EXPECT_EQ(Stream("Home", "Cache Friends"), "|friend@example.org|example.com");
    EXPECT_EQ(Stream("Home", "Cache Folders"), "|Inbox|Sent|Trash|Work");

    window.Clear();
    progress = window.Progress(12345);
    Enumerate(&progress);
    ASSERT_EQ(m_list.size(), 1u);
    CMailBoxProfile& back = *m_list.front();
    EXPECT_EQ(window.Events(),
              (std::vector<std::string>{"start 0 100", "record 1", "record 2", "record 3", "end 0 100"}));
    EXPECT_EQ(progress.dwRecordCount, 3u);  // the stored count
    EXPECT_EQ(back.GetAccountName(), "Home");
    EXPECT_EQ(back.GetProfileUserName(), "alice");
    EXPECT_EQ(back.BuildMailBoxStringData().str(), strings);
    EXPECT_EQ(back.GetMaxBodySize(), 128u);
    EXPECT_EQ(back.GetSessionMax(), 500u);
    EXPECT_EQ(back.GetSignature(), 99u);
    CStringArray list;
    back.GetFriendList(list);
    EXPECT_EQ(Joined(list), "friend@example.org,example.com");
    back.GetFolderList(list);
    EXPECT_EQ(Joined(list), "Inbox,Sent,Trash,Work");  // the defaults are not doubled
    EXPECT_EQ(back.GetRespondersCount(), 1);
    EXPECT_EQ(back.GetRedirectorsCount(), 1);
    EXPECT_EQ(back.GetShieldCount(), 1);
    EXPECT_EQ(back.GetSpamShields().front().GetFilterName(), "Junk");
    EXPECT_EQ(back.GetMessageList().size(), 3u);
    EXPECT_TRUE(back.HasMessage(2));
    EXPECT_EQ(back.GetMessageList().front()->GetAccountName(), "Home");  // the owner's fields
    EXPECT_EQ(back.GetContactCount(), 2);
    EXPECT_EQ(back.GetAddressList().front()->GetAccountName(), "Home");
    // The messages are read from the account's message file, which stays open.
    EXPECT_EQ(back.GetMessageStoragePtr()->GetStorage() != nullptr, true);
}

TEST_F(Store, SaveWithoutMessagesSendsOnlyItsOwnStatusesAndKeepsTheMarker) {
    CMailBoxProfile& p = Fresh("Lean");
    p.InitializeStorages(Accounts(), "Lean");
    p.AddMessage(MakeMessage(1, "a@b"), true);  // the stored record says "modified"
    ProgressRecorder window;
    auto progress = window.Progress();
    p.SaveStorageData(Accounts(), &progress, false);
    EXPECT_EQ(window.Events(), (std::vector<std::string>{"status 0 Account: Lean - Updating Autoresponders",
                                                         "status 0 Account: Lean - Updating Redirectors",
                                                         "status 0 Account: Lean - Updating Message Filters",
                                                         "status 0 Account: Lean - Updating Friends List",
                                                         "status 0 Account: Lean - Updating Spammer List",
                                                         "status 0 Account: Lean - Updating Folder List"}));
    window.Clear();
    p.SaveStorageData(Accounts(), &progress, false);  // the lists are saved: nothing about them
    EXPECT_EQ(window.Events().size(), 3u);
    Release();
    EXPECT_EQ(Word(Stream("Lean", "Numeric Data"), 21), 1u);
    EXPECT_EQ(Word(Stream("Lean", "Numeric Data"), 20), 1u);
}

// The marker decides whether the index is trusted: 0 after a save of the messages, 1 from the next
// AddMessage on, and while it is 1 every record of the message file is loaded.
TEST_F(Store, TheModifiedMarkerAndTheIndex) {
    CMailBoxProfile& p = Fresh("Marker");
    p.InitializeStorages(Accounts(), "Marker");
    p.AddMessage(MakeMessage(1, "a@b"), true);
    p.AddMessage(MakeMessage(2, "a@b"), false);
    EXPECT_EQ(p.GetNewMsgCount(), 1u);
    const std::string dataFile = p.GetDataFile().str();
    SaveAndClose(p);
    EXPECT_EQ(Word(Stream("Marker", "Numeric Data"), 21), 0u);

    // A record in the message file that the index does not name is not loaded while the marker is 0.
    {
        CStorageManager file(dataFile.c_str(), true);
        CMessageList stray;
        stray.SetData("From: stray@x\r\n", 77, 5, MsgReceived);
        stray.SaveMessage(file.GetStorage());
    }
    Enumerate();
    ASSERT_EQ(m_list.size(), 1u);
    EXPECT_EQ(m_list.front()->GetMessageList().size(), 2u);
    EXPECT_FALSE(m_list.front()->HasMessage(77));
    m_list.front()->AddMessage(MakeMessage(3, "c@d"), true);
    Release();
    EXPECT_EQ(Word(Stream("Marker", "Numeric Data"), 21), 1u);
    Enumerate();
    EXPECT_EQ(m_list.front()->GetMessageList().size(), 4u);
    EXPECT_TRUE(m_list.front()->HasMessage(77));
    EXPECT_TRUE(m_list.front()->HasMessage(3));
}

TEST_F(Store, WithoutSaveCopyEveryMessageGoes) {
    CMailBoxProfile& p = Filled("NoCopy");
    p.SetAdvancedData(0, 1, 1, 0, 1, 64, 0, 90);
    const std::string dataFile = p.GetDataFile().str();
    p.SaveStorageData(Accounts(), nullptr, true);
    for (CMessageList* m : p.GetMessageList()) EXPECT_TRUE(m->IsDeleted());
    Release();
    EXPECT_EQ(Stream("NoCopy", "Message Index"), "");
    EXPECT_EQ(Word(Stream("NoCopy", "Numeric Data"), 20), 0u);
    CStorageManager file(dataFile.c_str(), true);
    EXPECT_EQ(Elements(file.GetStorage()), std::set<std::string>());
}

TEST_F(Store, DeletedAccountsAndLongNames) {
    CMailBoxProfile& gone = Fresh("Gone");
    gone.InitializeStorages(Accounts(), "Gone");
    gone.SaveStorageData(Accounts(), nullptr, true);
    gone.DeleteEntry();
    gone.SaveStorageData(Accounts(), nullptr, true);
    EXPECT_EQ(Elements(Accounts()), std::set<std::string>());

    // A name of 31 characters gets a random 20-letter storage name, and joins its registry twin.
    const char* longName = "An account name of 31 letters..";
    CMailBoxProfile& p = Fresh(longName);
    p.InitializeStorages(Accounts(), "");
    p.SaveStorageData(Accounts(), nullptr, true);
    const std::string storageName = p.GetStorageName().str();
    EXPECT_EQ(storageName.size(), 20u);
    EXPECT_EQ(Elements(Accounts()), (std::set<std::string>{"+" + storageName}));
    Release();
    auto* registryTwin = new CMailBoxProfile;
    Name(*registryTwin, longName);
    m_list.push_back(registryTwin);
    Enumerate();
    ASSERT_EQ(m_list.size(), 1u);
    EXPECT_EQ(m_list.front(), registryTwin);
    EXPECT_EQ(registryTwin->GetStorageName().str(), storageName);
}

TEST_F(Store, TheOlderLayoutIsReadAndReplacedOnTheNextSave) {
    {
        CStorageManager old;
        old.OpenSubStorage(Accounts(), "Legacy", kMode, true, true);
        old.WriteString("Account Name", "Legacy");
        old.WriteString("Server Name", "pop.legacy.example");
        old.WriteString("User Password", "pw");
        old.WriteString("Maximum Body Size", "300");
        old.WriteString("Timeout", "15");
        old.WriteString("Profile ID", "31337");
        old.WriteString("Message Count", "0");
        old.WriteString("Message Modified", "1");
        CStorageManager friends, spammers;
        friends.OpenSubStorage(old.GetStorage(), "Friends", kMode, true, true);
        friends.WriteString("a", "pal@example.org");
        friends.WriteString("b", "PAL@example.org");  // the same ignoring case: read once
        spammers.OpenSubStorage(old.GetStorage(), "Spammers", kMode, true, true);
        spammers.WriteString("x", "junk.example");
    }
    Enumerate(nullptr, false);
    ASSERT_EQ(m_list.size(), 1u);
    CMailBoxProfile& p = *m_list.front();
    EXPECT_EQ(p.GetIncomingServerName(), "pop.legacy.example");
    EXPECT_EQ(p.GetPassword(), "pw");
    EXPECT_EQ(p.GetMaxBodySize(), 300u);
    EXPECT_EQ(p.GetTimeoutValue(), 15u);
    EXPECT_EQ(p.GetSignature(), 31337u);
    EXPECT_EQ(p.GetSessionMax(), 999u);  // missing: the default stays
    CStringArray list;
    p.GetFriendList(list);
    EXPECT_EQ(Joined(list), "pal@example.org");
    p.GetFolderList(list);
    EXPECT_EQ(Joined(list), "Inbox,Sent,Trash");

    p.SaveStorageData(Accounts(), nullptr, false);
    Release();
    EXPECT_EQ(AccountElements("Legacy"),
              (std::set<std::string>{"+AutoResponder", "+Contacts", "+Messages", "+Redirector", "+Shields",
                                     "Cache Enemies", "Cache Folders", "Cache Friends", "Numeric Data",
                                     "String Data", "String Data Length"}));
    EXPECT_EQ(Stream("Legacy", "Cache Friends"), "|pal@example.org");
    EXPECT_EQ(Stream("Legacy", "Cache Enemies"), "|junk.example");
    EXPECT_EQ(Word(Stream("Legacy", "Numeric Data"), 6), 300u);
    // Read back in the present layout.
    Enumerate(nullptr, false);
    EXPECT_EQ(m_list.front()->GetIncomingServerName(), "pop.legacy.example");
}

TEST_F(Store, AMessageFileLostAndRepaired) {
    CMailBoxProfile& p = Filled("Lost");
    const std::string dataFile = p.GetDataFile().str();
    SaveAndClose(p);
    fs::remove(dataFile);

    // The validity check notices; nothing else is read.
    Enumerate(nullptr, false, CMailBoxProfile::READ_VALIDITY_CHECK);
    ASSERT_EQ(m_list.size(), 1u);
    CMailBoxProfile& q = *m_list.front();
    EXPECT_FALSE(q.IsValidDbase());
    EXPECT_EQ(q.GetRespondersCount(), 0);
    // Repair from what the account storage still holds: a new file, named as CreateDataFile names it.
    q.ValidateDataFile((m_dir.path() / "nowhere.tvd").string().c_str());
    EXPECT_TRUE(q.IsValidDbase());
    const std::string repaired = q.GetDataFile().str();
    EXPECT_EQ(repaired.rfind(DataDirectory() + "alice-Lost-", 0), 0u) << repaired;
    EXPECT_TRUE(fs::is_regular_file(repaired));
    Release();
    EXPECT_NE(Stream("Lost", "String Data").find(repaired), std::string::npos);

    // Another existing file is taken as it is.
    const std::string moved = m_dir.file("moved.tvd");
    fs::rename(repaired, moved);
    Enumerate(nullptr, false, CMailBoxProfile::READ_VALIDITY_CHECK);
    EXPECT_FALSE(m_list.front()->IsValidDbase());
    m_list.front()->ValidateDataFile(moved.c_str());
    EXPECT_EQ(m_list.front()->GetDataFile().str(), moved);
    Release();
    Enumerate();
    EXPECT_TRUE(m_list.front()->IsValidDbase());
    EXPECT_EQ(m_list.front()->GetDataFile().str(), moved);

    // A full load with the file gone makes a new one from the account's own message storage.
    Release();
    fs::remove(moved);
    Enumerate();
    EXPECT_EQ(m_list.front()->GetDataFile().str(), dataFile);
    EXPECT_TRUE(fs::exists(dataFile));
}

// What a damaged or foreign message file does to a load: a clear failure, nothing else of the account
// lost, the file left as it was, and the other accounts loaded.
TEST_F(Store, MessageFilesThatCannotBeUsed) {
    CMailBoxProfile& first = Filled("First");
    const std::string firstFile = first.GetDataFile().str();
    SaveAndClose(first);
    CMailBoxProfile& second = Filled("Second");
    SaveAndClose(second);

    auto pointAt = [&](const char* account, const std::string& path) {
        Enumerate(nullptr, false);
        CMailBoxProfile* p = Listed(account);
        p->SetDataFile(path.c_str());
        p->SaveStorageData(Accounts(), nullptr, false);
        Release();
    };

    // Not a compound file.
    const std::string text = m_dir.file("notes.txt");
    WriteFile(text, "just some notes\n");
    pointAt("Second", text);
    {
        CMailBoxProfile p;
        bool thrown = false;
        try {
            p.ReadStorageData(Accounts(), "Second", nullptr, true);
        } catch (CStorageManagerException* e) {
            thrown = true;
            EXPECT_FALSE(e->m_strMessage.IsEmpty());
            e->Delete();
        }
        EXPECT_TRUE(thrown);
        EXPECT_FALSE(p.IsValidDbase());
        EXPECT_EQ(p.GetContactCount(), 2);  // everything else is in
        EXPECT_EQ(p.GetShieldCount(), 1);
        EXPECT_TRUE(p.GetMessageStoragePtr()->IsOpen());  // still on "Messages"
        p.UnloadMessages();
    }
    EXPECT_EQ(ReadFile(text), "just some notes\n");
    Enumerate();
    EXPECT_EQ(m_list.size(), 2u);
    EXPECT_EQ(Listed("First")->GetMessageList().size(), 3u);
    EXPECT_FALSE(Listed("Second")->IsValidDbase());
    Release();

    // The message file of another account, which that account holds open.
    pointAt("Second", firstFile);
    Enumerate();
    ASSERT_EQ(m_list.size(), 2u);
    EXPECT_EQ(Listed("First")->GetMessageList().size(), 3u);
    EXPECT_FALSE(Listed("Second")->IsValidDbase());
    EXPECT_EQ(Listed("Second")->GetMessageList().size(), 0u);
    Release();

    // A directory: the account gets a message file of its own again.
    const std::string directory = m_dir.file("a-directory");
    fs::create_directory(directory);
    pointAt("Second", directory);
    Enumerate();
    CMailBoxProfile* p = Listed("Second");
    EXPECT_TRUE(fs::is_regular_file(p->GetDataFile().str()));
    EXPECT_TRUE(fs::is_directory(directory));
}

TEST_F(Store, DamagedRecords) {
    CMailBoxProfile& p = Filled("Damaged");
    SaveAndClose(p);
    auto rewrite = [&](const char* stream, const std::string& bytes) {
        CStorageManager sub;
        sub.OpenSubStorage(Accounts(), "Damaged", kMode, false, true);
        sub.WriteData(stream, bytes.data(), static_cast<ULONG>(bytes.size()));
    };
    const std::string lengths = Stream("Damaged", "String Data Length");
    const std::string numeric = Stream("Damaged", "Numeric Data");

    // Lengths far beyond the text: the name fits, the rest keeps what it was.
    std::string huge = lengths;
    for (size_t k = 1; k < 15; ++k) huge.replace(4 * k, 4, LE({0x7FFFFFF0u}));
    rewrite("String Data Length", huge);
    Enumerate(nullptr, false);
    ASSERT_EQ(m_list.size(), 1u);
    EXPECT_EQ(m_list.front()->GetAccountName(), "Damaged");
    EXPECT_EQ(m_list.front()->GetActiveFolder(), "Inbox");
    Release();

    // A short numeric record: the words it has; without its marker every message is loaded.
    rewrite("String Data Length", lengths);
    rewrite("Numeric Data", numeric.substr(0, 40));
    Enumerate();
    EXPECT_EQ(m_list.front()->GetMaxBodySize(), 128u);
    EXPECT_EQ(m_list.front()->GetSessionMax(), 999u);  // word 10 is missing
    EXPECT_EQ(m_list.front()->GetMessageList().size(), 3u);
    Release();
    // A long one: the first 88 bytes.
    rewrite("Numeric Data", numeric + std::string(100, '\x7f'));
    Enumerate();
    EXPECT_EQ(m_list.front()->GetSessionMax(), 500u);
    Release();

    // An index naming records that are not there: the others load, nothing is left behind.
    rewrite("Numeric Data", numeric);
    rewrite("Message Index", "missing1,missing2," + Stream("Damaged", "Message Index"));
    Enumerate();
    EXPECT_EQ(m_list.front()->GetMessageList().size(), 3u);
    const std::string file = m_list.front()->GetDataFile().str();
    Release();
    {
        CStorageManager messages(file.c_str(), true);
        EXPECT_EQ(Elements(messages.GetStorage()).count("+missing1"), 0u);
    }

    // A first length beyond the text: no name, so the account is not listed, but its storage, which
    // holds its contacts and rules, is kept.
    huge = lengths;
    huge.replace(0, 4, LE({1000}));
    rewrite("String Data Length", huge);
    Enumerate();
    EXPECT_TRUE(m_list.empty());
    EXPECT_EQ(Elements(Accounts()), (std::set<std::string>{"+Damaged"}));
    EXPECT_EQ(AccountElements("Damaged").count("+Contacts"), 1u);
}

TEST_F(Store, EmptyAndBlankStorageNames) {
    CMailBoxProfile& p = Fresh("Real");
    p.InitializeStorages(Accounts(), "Real");
    p.SaveStorageData(Accounts(), nullptr, false);
    Release();
    {
        CStorageManager blank, blankWithData;
        blank.OpenSubStorage(Accounts(), "   ", kMode, true, true);
        blankWithData.OpenSubStorage(Accounts(), " \t ", kMode, true, true);
        blankWithData.WriteString("note", "kept");
        CStorageManager empty;
        empty.OpenSubStorage(Accounts(), "Empty", kMode, true, true);
    }
    Enumerate();
    ASSERT_EQ(m_list.size(), 1u);
    EXPECT_EQ(m_list.front()->GetAccountName(), "Real");
    Release();
    // The blank one without data and the one that holds nothing are gone.
    EXPECT_EQ(Elements(Accounts()), (std::set<std::string>{"+ \t ", "+Real"}));
}

TEST_F(Store, AnotherReaderSeesTheAccountAndItsMessageFile) {
    CMailBoxProfile& p = Filled("Interop");
    const std::string dataFile = p.GetDataFile().str();
    SaveAndClose(p);
    CloseAccounts();
    auto run = [](const std::string& script, const std::string& path) {
        std::string command = "/usr/bin/python3 -c \"" + script + "\" '" + path + "' 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        std::string output;
        char line[512];
        while (pipe && fgets(line, sizeof line, pipe)) output += line;
        int status = pipe ? pclose(pipe) : -1;
        return std::make_pair(status, output);
    };
    const std::string script =
        "import olefile,sys\n"
        "f=olefile.OleFileIO(sys.argv[1],raise_defects=olefile.DEFECT_INCORRECT)\n"
        "for e in sorted(f.listdir(streams=True,storages=False)):\n"
        "    n='/'.join(e)\n"
        "    assert len(f.openstream(n).read())==f.get_size(n),n\n"
        "    print(n, f.get_size(n))\n";
    auto [status, settings] = run(script, SettingsPath());
    ASSERT_EQ(status, 0) << settings;
    EXPECT_NE(settings.find("Accounts/Interop/Numeric Data 88\n"), std::string::npos) << settings;
    EXPECT_NE(settings.find("Accounts/Interop/String Data Length 60\n"), std::string::npos);
    EXPECT_NE(settings.find("Accounts/Interop/Shields/Junk/"), std::string::npos);
    auto [fileStatus, messages] = run(script, dataFile);
    ASSERT_EQ(fileStatus, 0) << messages;
    EXPECT_NE(messages.find("/Numeric Data 32\n"), std::string::npos) << messages;
    OpenAccounts();
}

}  // namespace
