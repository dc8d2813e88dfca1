// Message records in a real message file: the current layout, the older one and its migration,
// deletion, bodies, loading whole stores with progress, and the file as another reader sees it.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/Clock.h"
#include "platform/WindowMessages.h"
#include "tests/messages/DamagedFile.h"
#include "tests/support/TempDir.h"

using tavik::test::ClaimHugeStreamSize;
using tavik::test::TempDir;

namespace {

constexpr DWORD kChildMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
const char kHeader[] = "From: Ann <ann@example.org>\r\nSubject: Hello\r\nMessage-ID: <m1@example.org>\r\n";

std::string streamBytes(CStorageManager& storage, const char* name) {
    std::string bytes(storage.GetStreamSize(name), '\0');
    storage.ReadData(name, bytes.data(), static_cast<ULONG>(bytes.size()));
    return bytes;
}

std::vector<std::string> streamNames(IStorage* storage) {
    std::vector<std::string> names;
    IEnumSTATSTG* e = nullptr;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &e))) return names;
    STATSTG stat;
    ULONG n = 0;
    while (e->Next(1, &stat, &n) == S_OK && n == 1) {
        names.emplace_back(CString(stat.pwcsName).GetString());
        CoTaskMemFree(stat.pwcsName);
    }
    e->Release();
    std::sort(names.begin(), names.end());
    return names;
}

// The account's message file, held open as an account holds it.
class MessageStoreTest : public ::testing::Test {
protected:
    void SetUp() override { m_file = std::make_unique<CStorageManager>(m_dir.file("mail.tvd").c_str(), true); }
    IStorage* store() { return m_file->m_pStorage; }

    // Records get their storage names from the tick count, so records made within one millisecond
    // share a name; each record here is made a millisecond after the last, as fetched mail is.
    std::unique_ptr<CMessageList> newRecord(DWORD id, DWORD size, const char* header = kHeader) {
        m_clock.AdvanceTicks(1);
        auto record = std::make_unique<CMessageList>(store());
        record->SetData(header, id, size, MsgReceived);
        return record;
    }
    std::vector<std::string> record(const CString& name) {
        CStorageManager sub;
        sub.OpenSubStorage(store(), name, kChildMode, false, false);
        return streamNames(sub.m_pStorage);
    }
    void reopen() {
        m_file.reset();
        m_file = std::make_unique<CStorageManager>(m_dir.file("mail.tvd").c_str(), true);
    }

    ScopedClockPin m_clock{5000};
    TempDir m_dir;
    std::unique_ptr<CStorageManager> m_file;
};

}  // namespace

TEST_F(MessageStoreTest, ASavedRecordHasTheCurrentStreamsAndLoadsBack) {
    auto saved = newRecord(0xCAFEF00D, 4321);
    saved->SetSeen(true);
    saved->SetSpamTag();
    CString folder = "Junk";
    saved->SetFolderLocation(folder);
    saved->SaveMessage(store());
    EXPECT_FALSE(saved->IsDirty());
    CString name = saved->GetStorageName();
    EXPECT_EQ(record(name), (std::vector<std::string>{"Folder", "Header", "Identification", "Numeric Data"}));

    {
        CStorageManager sub;
        sub.OpenSubStorage(store(), name, kChildMode, false, false);
        std::string numeric = streamBytes(sub, "Numeric Data");
        const unsigned char expected[32] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
                                            0x0D, 0xF0, 0xFE, 0xCA, 0xE1, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        EXPECT_EQ(numeric, std::string(reinterpret_cast<const char*>(expected), 32));
        EXPECT_EQ(streamBytes(sub, "Identification"), "<m1@example.org>");
        EXPECT_EQ(streamBytes(sub, "Header"), kHeader);
    }

    reopen();
    CMessageList loaded(store());
    loaded.LoadMessage(store(), name, nullptr);
    EXPECT_FALSE(loaded.IsDirty());
    EXPECT_EQ(loaded.GetID(), 0xCAFEF00Du);
    EXPECT_EQ(loaded.GetMsgSize(), 4321u);
    EXPECT_TRUE(loaded.IsSeen());
    EXPECT_FALSE(loaded.IsRead());
    EXPECT_EQ(loaded.GetSpamTag(), 1u);
    EXPECT_EQ(loaded.GetFolderLocation(), "Junk");
    EXPECT_EQ(loaded.GetSubject(), "Hello");
    EXPECT_EQ(loaded.GetMessageID(), "<m1@example.org>");
    EXPECT_FALSE(loaded.HasBody());
    EXPECT_EQ(loaded.GetStorageName(), name);

    // A clean record is not written again; a changed one is.
    loaded.SaveMessage(store());
    loaded.SetRead(true);
    loaded.SaveMessage(store());
    CMessageList again(store());
    again.LoadMessage(store(), name, nullptr);
    EXPECT_TRUE(again.IsRead());
}

TEST_F(MessageStoreTest, BodiesAreStoredAndReadThroughTheRecord) {
    auto saved = newRecord(1, 100);
    saved->SaveMessage(store());
    CString body("Line one\r\nLine two\r\n");
    saved->SetBody(body);
    EXPECT_TRUE(saved->HasBody());
    EXPECT_FALSE(saved->IsDirty());
    EXPECT_EQ(record(saved->GetStorageName()).front(), "Body");

    CString text = "stale";
    EXPECT_TRUE(saved->GetBody(text));
    EXPECT_EQ(text, body);
    EXPECT_TRUE(saved->Find("LINE TWO", false, CMessageList::FindPhrase));

    reopen();
    CMessageList loaded(store());
    loaded.LoadMessage(store(), saved->GetStorageName(), nullptr);
    EXPECT_TRUE(loaded.HasBody());
    EXPECT_TRUE(loaded.GetBody(text));
    EXPECT_EQ(text, body);

    // Without a parent storage nothing is stored or read.
    CMessageList detached;
    detached.SetData(kHeader, 2, 10, MsgReceived);
    detached.SetBody(body);
    EXPECT_FALSE(detached.HasBody());
    EXPECT_FALSE(detached.GetBody(text));
    EXPECT_TRUE(text.IsEmpty());
}

TEST_F(MessageStoreTest, TheOlderLayoutIsReadAndReplacedAtTheNextSave) {
    {
        CStorageManager old;
        ASSERT_TRUE(old.OpenSubStorage(store(), "OLDRECORD0000000001", kChildMode, true, true));
        old.WriteString("Seen", "YES");
        old.WriteString("Read", "no");
        old.WriteString("Type", "Sent");
        old.WriteString("SpamTag", "1");
        old.WriteString("Number ID", "77");
        old.WriteString("Size", "1234");
        old.WriteString("Compressed", "5");
        old.WriteString("Encrypted", "6");
        old.WriteString("Header", kHeader);
        old.WriteString("Folder", "Saved");
        old.WriteString("Identification", "<old@x>");
    }
    CMessageList loaded(store());
    loaded.LoadMessage(store(), "OLDRECORD0000000001", nullptr);
    EXPECT_TRUE(loaded.IsDirty());
    EXPECT_TRUE(loaded.IsSeen());
    EXPECT_FALSE(loaded.IsRead());
    EXPECT_EQ(loaded.GetMessageType(), MsgSent);
    EXPECT_EQ(loaded.GetSpamTag(), 1u);
    EXPECT_EQ(loaded.GetID(), 77u);
    EXPECT_EQ(loaded.GetMsgSize(), 1234u);
    EXPECT_EQ(loaded.GetFolderLocation(), "Saved");
    EXPECT_EQ(loaded.GetMessageID(), "<old@x>");  // the stored id wins over the header's

    loaded.SaveMessage(store());
    EXPECT_EQ(record("OLDRECORD0000000001"),
              (std::vector<std::string>{"Folder", "Header", "Identification", "Numeric Data"}));
    CMessageList migrated(store());
    migrated.LoadMessage(store(), "OLDRECORD0000000001", nullptr);
    EXPECT_FALSE(migrated.IsDirty());
    EXPECT_EQ(migrated.GetMessageType(), MsgSent);
    EXPECT_EQ(migrated.GetID(), 77u);
    EXPECT_EQ(migrated.GetMsgSize(), 1234u);
}

TEST_F(MessageStoreTest, ADeletedRecordLeavesTheStoreAtItsNextSave) {
    auto doomed = newRecord(9, 900);
    doomed->SaveMessage(store());
    CString name = doomed->GetStorageName();
    CStorageManager view(store());
    EXPECT_TRUE(view.StorageExists(name));
    doomed->SetDeleted(true);
    doomed->SaveMessage(store());
    EXPECT_FALSE(view.StorageExists(name));
}

TEST_F(MessageStoreTest, RecordsMadeInTheSameMillisecondDoNotOverwriteEachOther) {
    CMessageList first(store()), second(store());
    first.SetData(kHeader, 101, 1000, MsgReceived);
    second.SetData(kHeader, 102, 2000, MsgReceived);
    ASSERT_EQ(first.GetStorageName(), second.GetStorageName());
    first.SaveMessage(store());
    second.SaveMessage(store());
    EXPECT_NE(first.GetStorageName(), second.GetStorageName());
    // Saving the first again keeps its own name.
    first.SetRead(true);
    first.SaveMessage(store());
    std::list<CMessageList*> loaded;
    CMessageList::EnumStorage(store(), loaded, nullptr, nullptr);
    std::vector<DWORD> ids;
    for (CMessageList* m : loaded) {
        ids.push_back(m->GetID());
        if (m->GetID() == 101) {
            EXPECT_TRUE(m->IsRead());
        }
        delete m;
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<DWORD>{101, 102}));
}

TEST_F(MessageStoreTest, AStreamClaimingAHugeSizeIsReadForWhatItHolds) {
    auto saved = newRecord(51, 510);
    saved->SaveMessage(store());
    m_file.reset();
    // Make the "Header" entry of the directory claim almost 2 GB.
    std::string path = m_dir.file("mail.tvd");
    ClaimHugeStreamSize(path, "Header");

    reopen();
    CMessageList loaded(store());
    loaded.LoadMessage(store(), saved->GetStorageName(), nullptr);
    // The numbers were read before the damage was met; the failure was swallowed.
    EXPECT_EQ(loaded.GetID(), 51u);
    EXPECT_EQ(loaded.GetMsgSize(), 510u);
    EXPECT_TRUE(loaded.GetHeader().IsEmpty());
}

TEST_F(MessageStoreTest, EmptyNamesAndIdsAreFilledBeforeSaving) {
    CMessageList bare(store());
    bare.SetData("Subject: no id\r\n", 5, 50, MsgReceived);
    CString generatedId = bare.GetMessageID();
    EXPECT_EQ(generatedId.GetLength(), 20);
    bare.SaveMessage(store());
    EXPECT_EQ(bare.GetMessageID(), generatedId);
    EXPECT_FALSE(bare.GetStorageName().IsEmpty());
}

namespace {

struct Notification {
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
};
std::vector<Notification> g_notes;

LRESULT recordNotification(HWND, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message >= WM_USER) g_notes.push_back({message, wParam, lParam});
    return 0;
}

void pump() {
    MSG msg;
    while (PeekMessage(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessage(&msg);
}

}  // namespace

TEST_F(MessageStoreTest, EnumStorageLoadsMessagesDropsEmptyOnesAndReportsProgress) {
    std::vector<CString> names;
    for (DWORD id : {11u, 12u, 13u}) {
        auto r = newRecord(id, id == 12 ? 0 : id * 10);
        r->SaveMessage(store());
        names.push_back(r->GetStorageName());
    }
    {
        // A storage that is not a record at all, and a stream beside the records.
        CStorageManager junk;
        junk.OpenSubStorage(store(), "Stray", kChildMode, true, true);
        CStorageManager(store()).WriteString("Index", "x");
    }

    g_notes.clear();
    HWND window = CreateMessageWindow(&recordNotification);
    ASSERT_NE(window, nullptr);
    CMessageList::_tagLoadProgressData progress{window, WM_USER + 1, WM_USER + 2, WM_USER + 3, WM_USER + 4,
                                                WM_USER + 5, 0};
    auto profile = reinterpret_cast<CMailBoxProfile*>(0x1234);
    std::list<CMessageList*> loaded;
    CMessageList::EnumStorage(store(), loaded, profile, &progress);
    pump();
    DestroyWindow(window);

    ASSERT_EQ(loaded.size(), 2u);
    std::vector<DWORD> ids;
    for (CMessageList* m : loaded) {
        ids.push_back(m->GetID());
        EXPECT_EQ(m->GetParentStorage(), store());
        delete m;
    }
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(ids, (std::vector<DWORD>{11, 13}));
    CStorageManager view(store());
    EXPECT_FALSE(view.StorageExists(names[1]));
    EXPECT_FALSE(view.StorageExists("Stray"));
    EXPECT_TRUE(view.StorageExists(names[0]));
    EXPECT_TRUE(view.StreamExists("Index"));

    // A record sent, then a percentage posted, for each; an expected count of 0 is taken as 1.
    EXPECT_EQ(progress.dwRecordCount, 1u);
    std::vector<Notification> sent, posted;
    for (auto& n : g_notes) (n.message == WM_USER + 2 ? sent : posted).push_back(n);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].wParam, reinterpret_cast<WPARAM>(profile));
    EXPECT_EQ(sent[1].lParam, 2);
    ASSERT_EQ(posted.size(), 2u);
    EXPECT_EQ(posted[0].message, WM_USER + 4);
    EXPECT_EQ(posted[1].lParam, 200);
}

TEST_F(MessageStoreTest, EnumStorageByIndexKeepsIndexOrderAndRemovesWhatFailsToLoad) {
    std::vector<CString> names;
    for (DWORD id : {21u, 22u, 23u}) {
        auto r = newRecord(id, 100);
        r->SaveMessage(store());
        names.push_back(r->GetStorageName());
    }
    CString index = names[2] + "," + names[0] + ",NOSUCHRECORD";
    CMessageList::_tagLoadProgressData progress{};
    g_notes.clear();
    HWND window = CreateMessageWindow(&recordNotification);
    progress.hWnd = window;
    progress.uRecordMessage = WM_USER + 7;
    progress.uPercentMessage = WM_USER + 8;
    progress.dwRecordCount = 4;
    std::list<CMessageList*> loaded;
    CMessageList::EnumStorage(index, store(), loaded, nullptr, &progress);
    pump();
    DestroyWindow(window);
    ASSERT_EQ(loaded.size(), 2u);
    EXPECT_EQ(loaded.front()->GetID(), 23u);
    EXPECT_EQ(loaded.back()->GetID(), 21u);
    for (CMessageList* m : loaded) delete m;
    loaded.clear();
    CStorageManager view(store());
    EXPECT_FALSE(view.StorageExists("NOSUCHRECORD"));  // made by the attempt, then removed
    EXPECT_TRUE(view.StorageExists(names[1]));         // not in the index: untouched
    // The sends arrive at once, the posted percentages when the queue is pumped.
    ASSERT_EQ(g_notes.size(), 4u);
    EXPECT_EQ(g_notes[1].message, WM_USER + 7);
    EXPECT_EQ(g_notes[1].lParam, 2);
    EXPECT_EQ(g_notes[2].lParam, 25);
    EXPECT_EQ(g_notes[3].lParam, 50);

    // Null parents load nothing.
    CMessageList::EnumStorage(nullptr, loaded, nullptr, nullptr);
    CMessageList::EnumStorage(index, nullptr, loaded, nullptr, nullptr);
    EXPECT_TRUE(loaded.empty());
}

namespace {
void fillFromProfile(CMailBoxProfile*, CString& account, CString& server, CString& outgoing, CString& email) {
    account = "Work";
    server = "pop.example.org";
    outgoing = "smtp.example.org";
    email = "me@example.org";
}
}  // namespace

TEST_F(MessageStoreTest, AProfileFillsTheAccountFields) {
    auto saved = newRecord(31, 310);
    saved->SaveMessage(store());
    CMessageList::SetProfileFieldsReader(&fillFromProfile);
    CMessageList loaded(store());
    loaded.LoadMessage(store(), saved->GetStorageName(), reinterpret_cast<CMailBoxProfile*>(0x1));
    CMessageList::SetProfileFieldsReader(nullptr);
    EXPECT_EQ(loaded.GetAccountName(), "Work");
    EXPECT_EQ(loaded.GetServerName(), "pop.example.org");
    EXPECT_EQ(loaded.GetOutgoingServer(), "smtp.example.org");
    EXPECT_EQ(loaded.GetEmailAddress(), "me@example.org");
}

TEST_F(MessageStoreTest, AnotherReaderListsTheFileWithTheExpectedStreams) {
    auto a = newRecord(41, 410);
    a->SaveMessage(store());
    CString body("The body");
    a->SetBody(body);
    auto b = newRecord(42, 420);
    b->SaveMessage(store());
    m_file.reset();  // commits the file

    std::string script =
        "import olefile,sys\n"
        "f=olefile.OleFileIO(sys.argv[1])\n"
        "for e in sorted(f.listdir(streams=True,storages=False)):\n"
        "    print('/'.join(e), f.get_size('/'.join(e)))\n";
    std::string command = "/usr/bin/python3 -c \"" + script + "\" " + m_dir.file("mail.tvd") + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string output;
    char line[512];
    while (fgets(line, sizeof line, pipe)) output += line;
    ASSERT_EQ(pclose(pipe), 0) << output;

    std::string an = a->GetStorageName().GetString(), bn = b->GetStorageName().GetString();
    std::string expectedA = an + "/Body 8\n" + an + "/Folder 5\n" + an + "/Header " + std::to_string(sizeof kHeader - 1) +
                            "\n" + an + "/Identification 16\n" + an + "/Numeric Data 32\n";
    std::string expectedB = bn + "/Folder 5\n" + bn + "/Header " + std::to_string(sizeof kHeader - 1) + "\n" + bn +
                            "/Identification 16\n" + bn + "/Numeric Data 32\n";
    EXPECT_EQ(output, an < bn ? expectedA + expectedB : expectedB + expectedA);
}
