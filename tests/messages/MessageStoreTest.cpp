// Message records in a real message file: the current layout, the older one and its migration,
// deletion, bodies, loading whole stores with progress, and the file as another reader sees it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/Clock.h"
#include "platform/WindowMessages.h"
#include "tests/messages/DamagedFile.h"
#include "tests/support/TempDir.h"
#include "tests/support/WriteFaults.h"

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

// The account's message file, held open as an account holds it.
class MessageStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_file = std::make_unique<CStorageManager>(m_dir.file("mail.tvd").c_str(), true);
    }
    IStorage* store() { return m_file->m_pStorage; }

    // Records get their storage names from the tick count, so records made within one millisecond
    // share a name; each record here is made a millisecond after the last, as fetched mail is.
    std::unique_ptr<CMessageList> newRecord(DWORD id, DWORD size, const char* header = kHeader) {
        m_clock.AdvanceTicks(1);
        auto record = std::make_unique<CMessageList>(store());
        record->SetData(header, id, size, MsgReceived);
        return record;
    }
    // The streams the record `name` holds, of all those the current and the older layout use.
    std::vector<std::string> record(const CString& name) {
        CStorageManager sub;
        sub.OpenSubStorage(store(), name, kChildMode, false, false);
        std::vector<std::string> present;
        for (const char* stream : {"Body", "Compressed", "Encrypted", "Folder", "Header", "Identification",
                                   "Number ID", "Numeric Data", "Read", "Seen", "Size", "SpamTag", "Type"})
            if (sub.StreamExists(stream)) present.push_back(stream);
        return present;
    }
    void reopen() {
        m_file.reset();
        m_file = std::make_unique<CStorageManager>(m_dir.file("mail.tvd").c_str(), true);
    }

    ScopedClockPin m_clock{5000};
    TempDir m_dir;
    std::unique_ptr<CStorageManager> m_file;
};

void fillFromProfile(CMailBoxProfile*, CString& account, CString& server, CString& outgoing, CString& email) {
    account = "Work", server = "pop.example.org", outgoing = "smtp.example.org", email = "me@example.org";
}

}  // namespace

TEST_F(MessageStoreTest, ASavedRecordHasTheCurrentStreamsAndLoadsBack) {
    auto saved = newRecord(0xCAFEF00D, 4321);
    saved->SetSeen(true);
    saved->SetSpamTag();
    saved->SetFolderLocation("Junk");
    saved->SaveMessage(store());
    EXPECT_FALSE(saved->IsDirty());
    CString name = saved->GetStorageName();
    EXPECT_EQ(record(name), (std::vector<std::string>{"Folder", "Header", "Identification", "Numeric Data"}));

    {
        CStorageManager sub;
        sub.OpenSubStorage(store(), name, kChildMode, false, false);
        std::string numeric = streamBytes(sub, "Numeric Data");
        const unsigned char expected[32] = {1,    0,    0,    0,    0,    0,    0, 0, 0, 0, 0, 0, 1, 0, 0, 0,
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
    EXPECT_TRUE(loaded.IsSeen() && !loaded.IsRead());
    EXPECT_EQ(loaded.GetSpamTag(), 1u);
    EXPECT_EQ(loaded.GetFolderLocation(), "Junk");
    EXPECT_EQ(loaded.GetSubject(), "Hello");
    EXPECT_FALSE(loaded.HasBody());

    // A change is written at the next save; a profile fills the account fields on load.
    loaded.SetRead(true);
    loaded.SaveMessage(store());
    CMessageList::SetProfileFieldsReader(&fillFromProfile);
    CMessageList again(store());
    again.LoadMessage(store(), name, reinterpret_cast<CMailBoxProfile*>(0x1));
    CMessageList::SetProfileFieldsReader(nullptr);
    EXPECT_TRUE(again.IsRead());
    EXPECT_EQ(again.GetAccountName() + "|" + again.GetServerName() + "|" + again.GetOutgoingServer() + "|" +
                  again.GetEmailAddress(),
              "Work|pop.example.org|smtp.example.org|me@example.org");

    // A deleted record leaves the store at its next save.
    again.SetDeleted(true);
    again.SaveMessage(store());
    EXPECT_FALSE(CStorageManager(store()).StorageExists(name));
}

TEST_F(MessageStoreTest, BodiesAreStoredAndReadThroughTheRecord) {
    auto saved = newRecord(1, 100);
    saved->SaveMessage(store());
    CString body("Line one\r\nLine two\r\n");
    saved->SetBody(body);
    EXPECT_TRUE(saved->HasBody());
    EXPECT_FALSE(saved->IsDirty());
    EXPECT_TRUE(saved->Find("LINE TWO", false, CMessageList::FindPhrase));

    reopen();
    CMessageList loaded(store());
    loaded.LoadMessage(store(), saved->GetStorageName(), nullptr);
    CString text = "stale";
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
        for (auto [name, value] : {std::pair<const char*, const char*>{"Seen", "YES"},
                                   {"Read", "no"},
                                   {"Type", "Sent"},
                                   {"SpamTag", "1"},
                                   {"Number ID", "77"},
                                   {"Size", "1234"},
                                   {"Compressed", "5"},
                                   {"Encrypted", "6"},
                                   {"Header", kHeader},
                                   {"Folder", "Saved"},
                                   {"Identification", "<old@x>"}})
            old.WriteString(name, value);
    }
    CMessageList loaded(store());
    loaded.LoadMessage(store(), "OLDRECORD0000000001", nullptr);
    EXPECT_TRUE(loaded.IsDirty());
    EXPECT_TRUE(loaded.IsSeen() && !loaded.IsRead());
    EXPECT_EQ(loaded.GetSpamTag(), 1u);
    EXPECT_EQ(loaded.GetFolderLocation(), "Saved");
    EXPECT_EQ(loaded.GetMessageID(), "<old@x>");  // the stored id wins over the header's

    loaded.SaveMessage(store());
    EXPECT_EQ(record("OLDRECORD0000000001"),
              (std::vector<std::string>{"Folder", "Header", "Identification", "Numeric Data"}));
    CMessageList migrated(store());
    migrated.LoadMessage(store(), "OLDRECORD0000000001", nullptr);
    EXPECT_FALSE(migrated.IsDirty());
    EXPECT_EQ(migrated.GetMessageType(), MsgSent);  // the old texts, read and written again
    EXPECT_EQ(migrated.GetID(), 77u);
    EXPECT_EQ(migrated.GetMsgSize(), 1234u);
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
    std::vector<std::pair<DWORD, bool>> got;
    for (CMessageList* m : loaded) {
        got.emplace_back(m->GetID(), m->IsRead());
        delete m;
    }
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (std::vector<std::pair<DWORD, bool>>{{101, true}, {102, false}}));
}

TEST_F(MessageStoreTest, AStreamClaimingAHugeSizeIsReadForWhatItHolds) {
    auto saved = newRecord(51, 510);
    saved->SaveMessage(store());
    m_file.reset();
    ClaimHugeStreamSize(m_dir.file("mail.tvd"), "Header");

    reopen();
    CMessageList loaded(store());
    loaded.LoadMessage(store(), saved->GetStorageName(), nullptr);
    // The numbers were read before the damage was met; the failure was swallowed.
    EXPECT_EQ(loaded.GetID(), 51u);
    EXPECT_EQ(loaded.GetMsgSize(), 510u);
    EXPECT_TRUE(loaded.GetHeader().IsEmpty());
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

// Runs load with a window that records what it is sent and posted, and delivers the posts.
template <class F>
void withRecorder(F load) {
    g_notes.clear();
    HWND window = CreateMessageWindow(&recordNotification);
    ASSERT_NE(window, nullptr);
    load(window);
    MSG msg;
    while (PeekMessage(&msg, nullptr, 0, 0, PM_REMOVE)) DispatchMessage(&msg);
    DestroyWindow(window);
}

}  // namespace

TEST_F(MessageStoreTest, EnumStorageLoadsRecordsDropsWhatFailsAndReportsProgress) {
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
    // Takes the loaded records' ids in their order and frees them.
    auto ids = [](std::list<CMessageList*>& loaded) {
        std::vector<DWORD> out;
        for (CMessageList* m : loaded) {
            out.push_back(m->GetID());
            delete m;
        }
        loaded.clear();
        return out;
    };
    CStorageManager view(store());

    // By index: index order, and a name that fails to load is removed (the attempt made it).
    std::list<CMessageList*> loaded;
    withRecorder([&](HWND window) {
        CMessageList::_tagLoadProgressData progress{};
        progress.hWnd = window;
        progress.uRecordMessage = WM_USER + 7;
        progress.uPercentMessage = WM_USER + 8;
        progress.dwRecordCount = 4;
        CMessageList::EnumStorage(names[2] + "," + names[0] + ",NOSUCHRECORD", store(), loaded, nullptr,
                                  &progress);
    });
    EXPECT_EQ(ids(loaded), (std::vector<DWORD>{13, 11}));
    EXPECT_FALSE(view.StorageExists("NOSUCHRECORD"));
    EXPECT_TRUE(view.StorageExists(names[1]));  // not in the index: untouched
    // The sends arrive at once, the posted percentages when the queue is pumped.
    ASSERT_EQ(g_notes.size(), 4u);
    EXPECT_EQ(g_notes[1].message, WM_USER + 7);
    EXPECT_EQ(g_notes[1].lParam, 2);
    EXPECT_EQ(g_notes[2].lParam, 25);
    EXPECT_EQ(g_notes[3].lParam, 50);

    // Whole store: the empty record and the stray storage go, the stream beside them stays.
    CMessageList::_tagLoadProgressData progress{};
    auto profile = reinterpret_cast<CMailBoxProfile*>(0x1234);
    withRecorder([&](HWND window) {
        progress = {window, WM_USER + 1, WM_USER + 2, WM_USER + 3, WM_USER + 4, WM_USER + 5, 0};
        CMessageList::EnumStorage(store(), loaded, profile, &progress);
    });
    for (CMessageList* m : loaded) EXPECT_EQ(m->GetParentStorage(), store());
    std::vector<DWORD> all = ids(loaded);
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all, (std::vector<DWORD>{11, 13}));
    EXPECT_FALSE(view.StorageExists(names[1]) || view.StorageExists("Stray"));
    EXPECT_TRUE(view.StorageExists(names[0]) && view.StreamExists("Index"));
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

    // Null parents load nothing.
    CMessageList::EnumStorage(nullptr, loaded, nullptr, nullptr);
    CMessageList::EnumStorage(CString("x"), nullptr, loaded, nullptr, nullptr);
    EXPECT_TRUE(loaded.empty());
}

TEST_F(MessageStoreTest, AnotherReaderListsTheFileWithTheExpectedStreams) {
    auto a = newRecord(41, 410);
    a->SaveMessage(store());
    CString body("The body");
    a->SetBody(body);
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

    const std::string n = a->GetStorageName().GetString();
    EXPECT_EQ(output, n + "/Body 8\n" + n + "/Folder 5\n" + n + "/Header " +
                          std::to_string(sizeof kHeader - 1) + "\n" + n + "/Identification 16\n" + n +
                          "/Numeric Data 32\n");
}

// Saving records into the message file and committing it, with each file-system change failing in turn:
// the file keeps the old records or holds the new ones, the failure is reported, and no file is left over.
TEST_F(MessageStoreTest, ACommitThatFailsAnywhereKeepsTheOldRecords) {
    const std::string path = m_dir.file("mail.tvd");
    // "id read", one line per record, sorted. The account's handle is closed meanwhile.
    auto records = [&] {
        m_file->Close();
        std::vector<std::string> lines;
        auto file = std::make_unique<CStorageManager>(path.c_str(), false);
        IEnumSTATSTG* elements = nullptr;
        EXPECT_EQ(file->m_pStorage->EnumElements(0, nullptr, 0, &elements), S_OK);
        STATSTG st;
        ULONG got = 0;
        while (elements && elements->Next(1, &st, &got) == S_OK) {
            CString name(st.pwcsName);
            CoTaskMemFree(st.pwcsName);
            CMessageList record(file->m_pStorage);
            record.LoadMessage(file->m_pStorage, name, nullptr);
            lines.push_back(std::to_string(record.GetID()) + (record.IsRead() ? " read" : " unread"));
        }
        if (elements) elements->Release();
        file.reset();
        m_file->OpenStorageFile(path.c_str(), true);
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    auto listing = [&] {
        std::vector<std::string> names;
        for (auto& e : std::filesystem::directory_iterator(m_dir.path()))
            names.push_back(e.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    };
    // The old file: records 1 to 3. The change: 1 read, 2 deleted, 4 and 5 new.
    std::vector<std::unique_ptr<CMessageList>> kept;
    auto makeOld = [&] {
        m_file.reset();
        std::filesystem::remove(path);
        m_file = std::make_unique<CStorageManager>(path.c_str(), true);
        kept.clear();
        for (DWORD id = 1; id <= 3; ++id) {
            kept.push_back(newRecord(id, 100 * id));
            kept.back()->SaveMessage(store());
        }
        m_file->Close();
        m_file->OpenStorageFile(path.c_str(), true);
    };
    auto change = [&] {
        kept[0]->SetRead(true);
        kept[0]->SaveMessage(store());
        kept[1]->SetDeleted(true);
        kept[1]->SaveMessage(store());
        for (DWORD id = 4; id <= 5; ++id) newRecord(id, 100 * id)->SaveMessage(store());
        m_file->Close();
    };
    makeOld();
    const auto oldRecords = records();
    const auto names = listing();
    change();
    const auto newRecords = records();
    ASSERT_NE(newRecords, oldRecords);

    int failures = tavik::test::SweepWriteFaults([&](int n) {
        SCOPED_TRACE(n);
        makeOld();
        bool hit;
        {
            tavik::test::WriteFault fault(n, ENOSPC);
            change();
            hit = fault.Hit();
        }
        if (FAILED(m_file->m_hResult)) {
            EXPECT_EQ(m_file->m_hResult, STG_E_MEDIUMFULL);
            EXPECT_EQ(records(), oldRecords);
        } else {
            EXPECT_EQ(records(), newRecords);
        }
        EXPECT_EQ(listing(), names);
        return hit;
    });
    EXPECT_GE(failures, 4);
}
