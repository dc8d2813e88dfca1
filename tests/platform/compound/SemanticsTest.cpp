// What the library relies on: names, share modes, result codes, transactions, enumeration, copying.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <random>

#include "platform/CString.h"
#include "platform/compound/internal/Format.h"
#include "platform/compound/internal/Handles.h"
#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

using tavik::platform::cfb::Get16;
using tavik::platform::cfb::Get32;

std::string Slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

std::vector<std::string> Names(IStorage* stg) {
    std::vector<std::string> names;
    Com<IEnumSTATSTG> en;
    EXPECT_EQ(stg->EnumElements(0, nullptr, 0, en.out()), S_OK);
    STATSTG st[7];
    ULONG got = 0;
    HRESULT hr;
    do {
        hr = en->Next(7, st, &got);
        for (ULONG i = 0; i < got; ++i) {
            names.push_back(WideToAnsi(st[i].pwcsName));
            CoTaskMemFree(st[i].pwcsName);
        }
    } while (hr == S_OK);
    EXPECT_EQ(hr, S_FALSE);
    return names;
}

// Checks every sibling tree of a file we wrote: ordered by the name rule, root black, no red node with a
// red child, one black height. Returns the deepest sibling tree seen.
int CheckDirectoryTrees(const std::string& path) {
    std::string f = Slurp(path);
    const auto* b = reinterpret_cast<const unsigned char*>(f.data());
    std::vector<const unsigned char*> entries;
    std::uint32_t s = Get32(b + 0x30);
    while (s != tavik::platform::cfb::ENDOFCHAIN) {
        for (int i = 0; i < 4; ++i) entries.push_back(b + 512 * (s + 1) + 128 * i);
        // FAT sector ids come from the header list; the walk below suffices for the test files.
        std::uint32_t fatSector = Get32(b + 0x4C + 4 * (s / 128));
        s = Get32(b + 512 * (fatSector + 1) + 4 * (s % 128));
    }
    auto name = [&](std::uint32_t id) {
        std::u16string n;
        for (int i = 0; i < Get16(entries[id] + 0x40) / 2 - 1; ++i) n.push_back(Get16(entries[id] + 2 * i));
        return n;
    };
    int deepest = 0;
    // Returns the black height; checks order within (lo, hi).
    std::function<int(std::uint32_t, int, bool, const std::u16string*, const std::u16string*)> check =
        [&](std::uint32_t id, int depth, bool parentRed, const std::u16string* lo,
            const std::u16string* hi) -> int {
        if (id == tavik::platform::cfb::NOSTREAM) return 1;
        deepest = std::max(deepest, depth + 1);
        const unsigned char* e = entries.at(id);
        bool red = e[0x43] == 0;
        EXPECT_FALSE(red && parentRed) << "red child of a red node";
        std::u16string n = name(id);
        if (lo) {
            EXPECT_LT(tavik::platform::cfb::CompareNames(*lo, n), 0);
        }
        if (hi) {
            EXPECT_LT(tavik::platform::cfb::CompareNames(n, *hi), 0);
        }
        int l = check(Get32(e + 0x44), depth + 1, red, lo, &n);
        int r = check(Get32(e + 0x48), depth + 1, red, &n, hi);
        EXPECT_EQ(l, r) << "black heights differ";
        if (e[0x42] != tavik::platform::cfb::kTypeStream) {
            std::uint32_t child = Get32(e + 0x4C);
            if (child != tavik::platform::cfb::NOSTREAM) {
                EXPECT_EQ(entries.at(child)[0x43], 1) << "sibling tree root must be black";
                check(child, 0, false, nullptr, nullptr);
            }
        }
        return l + (red ? 0 : 1);
    };
    check(Get32(entries[0] + 0x4C), 0, false, nullptr, nullptr);
    return deepest;
}

class CompoundSemantics : public ::testing::Test {
protected:
    void SetUp() override {
        m_file = m_dir.file("t.ole");
        ASSERT_EQ(StgCreateDocfile(m_file.c_str(), kRW | STGM_CREATE, 0, m_root.out()), S_OK);
    }
    TempDir m_dir;
    std::string m_file;
    Com<IStorage> m_root;
};

TEST_F(CompoundSemantics, NamesFollowTheFormatRules) {
    Com<IStream> s;
    std::string longest(31, 'x');
    EXPECT_EQ(m_root->CreateStream(longest.c_str(), kRW, 0, 0, s.out()), S_OK);
    EXPECT_EQ(m_root->CreateStream(std::string(32, 'y').c_str(), kRW, 0, 0, s.out()), STG_E_INVALIDNAME);
    EXPECT_EQ(m_root->CreateStream(static_cast<const char*>(nullptr), kRW, 0, 0, s.out()), STG_E_INVALIDNAME);
    EXPECT_EQ(s.get(), nullptr);
    for (const char* bad : {"a/b", "a\\b", "a:b", "a!b", ""})
        EXPECT_EQ(m_root->CreateStream(bad, kRW, 0, 0, s.out()), STG_E_INVALIDNAME) << bad;
    ASSERT_EQ(PutStream(m_root.get(), "Abc", {1, 2, 3}), S_OK);
    EXPECT_EQ(m_root->CreateStream("ABC", kRW, 0, 0, s.out()), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(GetStream(m_root.get(), "aBC"), (std::vector<unsigned char>{1, 2, 3}));
    // Windows-1252 letters fold too (\xe9 e-acute, \xc9 its capital); sharp s has no one-unit capital.
    ASSERT_EQ(PutStream(m_root.get(), "caf\xe9", {4}), S_OK);
    EXPECT_EQ(GetStream(m_root.get(), "CAF\xc9"), std::vector<unsigned char>{4});
    ASSERT_EQ(PutStream(m_root.get(), "\xdf", {5}), S_OK);
    ASSERT_EQ(PutStream(m_root.get(), "SS", {6}), S_OK);
    for (const char* n : {"B", "AA", "a", "\001CompObj"}) ASSERT_EQ(PutStream(m_root.get(), n, {}), S_OK);
    s.reset();
    // Shorter names first, then by upper-cased units.
    EXPECT_EQ(Names(m_root.get()), (std::vector<std::string>{"a", "B", "\xdf", "AA", "SS", "Abc", "caf\xe9",
                                                             "\001CompObj", longest}));
    m_root.reset();
    EXPECT_GT(CheckDirectoryTrees(m_file), 0);
    Com<IStorage> again;
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, again.out()), S_OK);
    EXPECT_EQ(GetStream(again.get(), "\001compobj").size(), 0u);
    EXPECT_EQ(GetStream(again.get(), "\xdf"), std::vector<unsigned char>{5});
}

TEST_F(CompoundSemantics, ElementModesAndOpenElements) {
    ASSERT_EQ(PutStream(m_root.get(), "s", {1}), S_OK);
    Com<IStream> a, b;
    ASSERT_EQ(m_root->OpenStream("s", nullptr, kRW, 0, a.out()), S_OK);
    EXPECT_EQ(m_root->OpenStream("s", nullptr, kRO, 0, b.out()), STG_E_ACCESSDENIED);
    EXPECT_EQ(m_root->CreateStream("s", kRW | STGM_CREATE, 0, 0, b.out()), STG_E_ACCESSDENIED);
    EXPECT_EQ(m_root->RenameElement("s", "t"), STG_E_ACCESSDENIED);
    a.reset();
    EXPECT_EQ(m_root->OpenStream("s", nullptr, STGM_READ | STGM_SHARE_DENY_NONE, 0, b.out()),
              STG_E_INVALIDFLAG);
    EXPECT_EQ(m_root->OpenStream("s", nullptr, kRW | STGM_TRANSACTED, 0, b.out()), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(m_root->OpenStream("missing", nullptr, kRO, 0, b.out()), STG_E_FILENOTFOUND);
    EXPECT_EQ(m_root->CreateStream("s", kRW, 0, 0, b.out()), STG_E_FILEALREADYEXISTS);
    Com<IStorage> sub;
    EXPECT_EQ(m_root->OpenStorage("s", nullptr, kRW, nullptr, 0, sub.out()), STG_E_FILENOTFOUND);
    ASSERT_EQ(m_root->CreateStorage("sub", kRW, 0, 0, sub.out()), S_OK);
    Com<IStorage> sub2;
    EXPECT_EQ(m_root->OpenStorage("sub", nullptr, kRW, nullptr, 0, sub2.out()), STG_E_ACCESSDENIED);
    ASSERT_EQ(PutStream(m_root.get(), "t", {2}), S_OK);
    EXPECT_EQ(m_root->RenameElement("t", "S"), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(m_root->RenameElement("t", "u"), S_OK);
    EXPECT_EQ(GetStream(m_root.get(), "U"), std::vector<unsigned char>{2});
}

TEST_F(CompoundSemantics, FileLevelCodes) {
    Com<IStorage> other;
    EXPECT_EQ(StgCreateDocfile(m_file.c_str(), kRW, 0, other.out()), STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(StgCreateDocfile(m_dir.file("x").c_str(), kRO | STGM_CREATE, 0, other.out()),
              STG_E_INVALIDFLAG);
    EXPECT_EQ(StgCreateDocfile(m_dir.file("x").c_str(), STGM_READWRITE | STGM_CREATE, 0, other.out()),
              STG_E_INVALIDFLAG);
    EXPECT_EQ(StgOpenStorage(m_dir.file("none").c_str(), nullptr, kRO, nullptr, 0, other.out()),
              STG_E_FILENOTFOUND);
    EXPECT_EQ(StgOpenStorage(m_dir.file("no/dir").c_str(), nullptr, kRO, nullptr, 0, other.out()),
              STG_E_PATHNOTFOUND);
    EXPECT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRW | STGM_CREATE, nullptr, 0, other.out()),
              STG_E_INVALIDFLAG);
    std::ofstream(m_dir.file("text")) << "not a compound file, but long enough to have a header........";
    EXPECT_EQ(StgOpenStorage(m_dir.file("text").c_str(), nullptr, kRO, nullptr, 0, other.out()),
              STG_E_FILEALREADYEXISTS);
    EXPECT_EQ(StgIsStorageFile(m_dir.file("text").c_str()), S_FALSE);
    EXPECT_EQ(StgIsStorageFile(m_file.c_str()), S_OK);
    // The open file is locked, in this process and in another; a reader that denies nothing itself is
    // refused too, as on Windows.
    constexpr DWORD kLookOnly = STGM_READ | STGM_SHARE_DENY_NONE | STGM_TRANSACTED;
    EXPECT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, other.out()), STG_E_SHAREVIOLATION);
    EXPECT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kLookOnly, nullptr, 0, other.out()),
              STG_E_SHAREVIOLATION);
    EXPECT_EQ(StgCreateDocfile(m_file.c_str(), kRW | STGM_CREATE, 0, other.out()), STG_E_SHAREVIOLATION);
    pid_t pid = fork();
    if (pid == 0) {
        IStorage* p = nullptr;
        _exit(StgOpenStorage(m_file.c_str(), nullptr, kRW, nullptr, 0, &p) == STG_E_SHAREVIOLATION ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // Still locked after a commit replaced the file.
    ASSERT_EQ(PutStream(m_root.get(), "s", {1}), S_OK);
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    EXPECT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, other.out()), STG_E_SHAREVIOLATION);
    m_root.reset();
    EXPECT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, other.out()), S_OK);
    other.reset();
    // Readers that deny nothing share the file with each other and with a reader that denies writing.
    Com<IStorage> third;
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kLookOnly, nullptr, 0, other.out()), S_OK);
    EXPECT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kLookOnly, nullptr, 0, third.out()), S_OK);
    third.reset();
    EXPECT_EQ(
        StgOpenStorage(m_file.c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0, third.out()),
        S_OK);
}

TEST_F(CompoundSemantics, ReadOnlyOpenChangesNothing) {
    ASSERT_EQ(PutStream(m_root.get(), "s", {1, 2}), S_OK);
    m_root.reset();
    std::string before = Slurp(m_file);
    Com<IStorage> ro;
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, ro.out()), S_OK);
    Com<IStream> s;
    EXPECT_EQ(ro->CreateStream("n", kRW, 0, 0, s.out()), STG_E_ACCESSDENIED);
    EXPECT_EQ(ro->OpenStream("s", nullptr, kRW, 0, s.out()), STG_E_ACCESSDENIED);
    EXPECT_EQ(ro->DestroyElement("s"), STG_E_ACCESSDENIED);
    ASSERT_EQ(ro->OpenStream("s", nullptr, kRO, 0, s.out()), S_OK);
    ULONG n = 0xdeadbeef;
    EXPECT_EQ(s->Write("x", 1, &n), STG_E_ACCESSDENIED);
    EXPECT_EQ(n, 0u);
    s.reset();
    EXPECT_EQ(ro->Commit(STGC_DEFAULT), S_OK);
    ro.reset();
    EXPECT_EQ(Slurp(m_file), before);
}

TEST_F(CompoundSemantics, TransactedStoragesPublishOnlyAtCommit) {
    Com<IStorage> sub;
    ASSERT_EQ(m_root->CreateStorage("msg", kRW | STGM_TRANSACTED, 0, 0, sub.out()), S_OK);
    ASSERT_EQ(PutStream(sub.get(), "Header", {1}), S_OK);
    EXPECT_EQ(sub->Revert(), S_OK);
    EXPECT_EQ(GetStream(sub.get(), "Header").size(), 0u);
    ASSERT_EQ(PutStream(sub.get(), "Header", {2}), S_OK);
    ASSERT_EQ(sub->Commit(STGC_DEFAULT), S_OK);
    ASSERT_EQ(PutStream(sub.get(), "Body", {3}), S_OK);
    sub.reset();  // released without a commit: "Body" is dropped
    ASSERT_EQ(m_root->OpenStorage("msg", nullptr, kRW, nullptr, 0, sub.out()), S_OK);
    EXPECT_EQ(Names(sub.get()), std::vector<std::string>{"Header"});
    sub.reset();

    // A transacted root: nothing reaches the disk before its commit, and Revert returns to the file.
    m_root.reset();
    std::string before = Slurp(m_file);
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, m_root.out()), S_OK);
    ASSERT_EQ(m_root->OpenStorage("msg", nullptr, kRW | STGM_TRANSACTED, nullptr, 0, sub.out()), S_OK);
    ASSERT_EQ(PutStream(sub.get(), "Folder", {4}), S_OK);
    ASSERT_EQ(sub->Commit(STGC_DEFAULT), S_OK);
    sub.reset();
    EXPECT_EQ(Slurp(m_file), before);
    ASSERT_EQ(m_root->Revert(), S_OK);
    Com<IStorage> msg = OpenPath(m_root.get(), "msg");
    ASSERT_TRUE(msg);
    EXPECT_EQ(Names(msg.get()), std::vector<std::string>{"Header"});
    ASSERT_EQ(PutStream(msg.get(), "Folder", {5}), S_OK);
    msg.reset();
    m_root.reset();  // transacted root released without commit
    EXPECT_EQ(Slurp(m_file), before);
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, m_root.out()), S_OK);
    msg = OpenPath(m_root.get(), "msg");
    ASSERT_EQ(PutStream(msg.get(), "Folder", {6}), S_OK);
    msg.reset();
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    m_root.reset();
    auto line = [](const char* path, unsigned char byte) {
        char b[64];
        std::snprintf(b, sizeof b, "f %s 1 %08x", path, Crc32({byte}));
        return std::string(b);
    };
    EXPECT_EQ(ListFile(m_file),
              (std::vector<std::string>{"d msg", line("msg/Folder", 6), line("msg/Header", 2)}));
}

// A commit publishes the working copy and the storage goes on with a copy of what it published; a
// revert goes back to it. Whether handles, enumerators or transacted children are open under the
// storage at that moment must not change what anyone sees.
TEST_F(CompoundSemantics, TransactedStoragesGoOnAfterCommitAndRevert) {
    Com<IStorage> box, rule;
    ASSERT_EQ(m_root->CreateStorage("box", kRW | STGM_TRANSACTED, 0, 0, box.out()), S_OK);
    ASSERT_EQ(box->CreateStorage("r1", kRW | STGM_TRANSACTED, 0, 0, rule.out()), S_OK);
    ASSERT_EQ(PutStream(rule.get(), "ids", {1}), S_OK);
    ASSERT_EQ(rule->Commit(STGC_DEFAULT), S_OK);
    rule.reset();
    ASSERT_EQ(box->Commit(STGC_DEFAULT), S_OK);  // nothing open under it
    auto seen = [&](const char* path) {
        Com<IStorage> at = OpenPath(box.get(), path, kRO);
        return at ? GetStream(at.get(), "ids") : std::vector<unsigned char>{0xEE};
    };
    EXPECT_EQ(seen("r1"), std::vector<unsigned char>{1});
    ASSERT_EQ(PutStream(OpenPath(box.get(), "r1").get(), "ids", {2}), S_OK);
    ASSERT_EQ(box->Revert(), S_OK);  // nothing open: back to the commit
    EXPECT_EQ(seen("r1"), std::vector<unsigned char>{1});
    ASSERT_EQ(box->Revert(), S_OK);
    ASSERT_EQ(box->Commit(STGC_DEFAULT), S_OK);

    // Open under the box while it commits: a stream, an enumerator and a transacted child.
    Com<IStorage> r1 = OpenPath(box.get(), "r1");
    Com<IStream> open;
    ASSERT_EQ(r1->OpenStream("ids", nullptr, kRW, 0, open.out()), S_OK);
    Com<IStorage> r2;
    ASSERT_EQ(box->CreateStorage("r2", kRW | STGM_TRANSACTED, 0, 0, r2.out()), S_OK);
    ASSERT_EQ(PutStream(r2.get(), "ids", {3}), S_OK);
    Com<IEnumSTATSTG> walk;
    ASSERT_EQ(box->EnumElements(0, nullptr, 0, walk.out()), S_OK);
    ASSERT_EQ(box->Commit(STGC_DEFAULT), S_OK);
    ULONG n = 0;
    ASSERT_EQ(open->Write("\x04", 1, &n), S_OK);  // after the commit: not published yet
    ASSERT_EQ(r2->Commit(STGC_DEFAULT), S_OK);
    open.reset();
    r1.reset();
    r2.reset();
    STATSTG st;
    std::vector<std::string> walked;
    while (walk->Next(1, &st, &n) == S_OK && n == 1) {
        walked.push_back(WideToAnsi(st.pwcsName));
        CoTaskMemFree(st.pwcsName);
    }
    walk.reset();
    EXPECT_EQ(walked, (std::vector<std::string>{"r1", "r2"}));
    EXPECT_EQ(seen("r1"), std::vector<unsigned char>{4});
    EXPECT_EQ(seen("r2"), std::vector<unsigned char>{3});
    ASSERT_EQ(box->Revert(), S_OK);  // the stream write and r2 were never committed by the box
    EXPECT_EQ(seen("r1"), std::vector<unsigned char>{1});
    EXPECT_EQ(Names(box.get()), (std::vector<std::string>{"r1", "r2"}));
    EXPECT_EQ(seen("r2"), std::vector<unsigned char>{});

    // A revert with a handle open under the storage reverts that handle.
    ASSERT_EQ(OpenPath(box.get(), "r1")->OpenStream("ids", nullptr, kRW, 0, open.out()), S_OK);
    ASSERT_EQ(box->Revert(), S_OK);
    EXPECT_EQ(open->Write("x", 1, &n), STG_E_REVERTED);
    open.reset();
    ASSERT_EQ(PutStream(OpenPath(box.get(), "r1").get(), "ids", {5}), S_OK);
    ASSERT_EQ(box->Commit(STGC_DEFAULT), S_OK);
    box.reset();

    // The transacted root the same way: committed twice, reverted in between.
    m_root.reset();
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, m_root.out()), S_OK);
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    ASSERT_EQ(PutStream(OpenPath(m_root.get(), "box/r1").get(), "ids", {6}), S_OK);
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    ASSERT_EQ(PutStream(OpenPath(m_root.get(), "box/r2").get(), "ids", {7}), S_OK);
    ASSERT_EQ(m_root->Revert(), S_OK);
    EXPECT_EQ(GetStream(OpenPath(m_root.get(), "box/r2").get(), "ids"), std::vector<unsigned char>{});
    ASSERT_EQ(PutStream(OpenPath(m_root.get(), "box/r2").get(), "ids", {8}), S_OK);
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    m_root.reset();
    auto line = [](const char* path, std::vector<unsigned char> bytes) {
        char b[64];
        std::snprintf(b, sizeof b, "f %s %zu %08x", path, bytes.size(), Crc32(bytes));
        return std::string(b);
    };
    EXPECT_EQ(ListFile(m_file), (std::vector<std::string>{"d box", "d box/r1", "d box/r2",
                                                          line("box/r1/ids", {6}), line("box/r2/ids", {8})}));
}

TEST_F(CompoundSemantics, DestroyRevertsHandlesAndFreesSpace) {
    Com<IStorage> sub, deep;
    ASSERT_EQ(m_root->CreateStorage("a", kRW, 0, 0, sub.out()), S_OK);
    ASSERT_EQ(sub->CreateStorage("b", kRW, 0, 0, deep.out()), S_OK);
    Com<IStream> s;
    ASSERT_EQ(deep->CreateStream("c", kRW, 0, 0, s.out()), S_OK);
    ASSERT_EQ(m_root->DestroyElement("A"), S_OK);
    ULONG n;
    EXPECT_EQ(s->Write("x", 1, &n), STG_E_REVERTED);
    EXPECT_EQ(deep->CreateStream("d", kRW, 0, 0, s.out()), STG_E_REVERTED);
    STATSTG st;
    EXPECT_EQ(sub->Stat(&st, STATFLAG_NONAME), STG_E_REVERTED);
    EXPECT_EQ(m_root->DestroyElement("a"), STG_E_FILENOTFOUND);
    ASSERT_EQ(m_root->CreateStorage("a", kRW, 0, 0, sub.out()), S_OK);
    sub.reset();
    // Create-write-delete cycles do not grow the file.
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(PutStream(m_root.get(), "tmp", Pattern(10000, i)), S_OK);
        ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
        ASSERT_EQ(m_root->DestroyElement("tmp"), S_OK);
        ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
        EXPECT_EQ(std::filesystem::file_size(m_file), 1536u);
    }
}

TEST_F(CompoundSemantics, StreamsGrowShrinkAndSeek) {
    Com<IStream> s;
    ASSERT_EQ(m_root->CreateStream("s", kRW, 0, 0, s.out()), S_OK);
    auto data = Pattern(4000, 1);
    ULONG n = 0;
    ASSERT_EQ(s->Write(data.data(), 4000, &n), S_OK);
    LARGE_INTEGER to;
    to.QuadPart = 5000;
    ULARGE_INTEGER pos;
    ASSERT_EQ(s->Seek(to, STREAM_SEEK_SET, &pos), S_OK);
    ASSERT_EQ(s->Write("z", 1, &n), S_OK);  // past the end: the gap reads as zeros
    s.reset();
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    auto got = GetStream(m_root.get(), "s");
    ASSERT_EQ(got.size(), 5001u);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), got.begin()));
    EXPECT_TRUE(std::all_of(got.begin() + 4000, got.begin() + 5000, [](unsigned char c) { return c == 0; }));
    ASSERT_EQ(m_root->OpenStream("s", nullptr, kRW, 0, s.out()), S_OK);
    ULARGE_INTEGER size;
    size.QuadPart = 100;
    ASSERT_EQ(s->SetSize(size), S_OK);
    to.QuadPart = -1;
    EXPECT_EQ(s->Seek(to, STREAM_SEEK_SET, &pos), STG_E_INVALIDFUNCTION);
    to.QuadPart = -10;
    ASSERT_EQ(s->Seek(to, STREAM_SEEK_END, &pos), S_OK);
    EXPECT_EQ(pos.QuadPart, 90u);
    unsigned char buf[64];
    memset(buf, 0xbd, sizeof buf);
    ASSERT_EQ(s->Read(buf, sizeof buf, &n), S_OK);
    EXPECT_EQ(n, 10u);
    EXPECT_EQ(buf[10], 0xbd);
    EXPECT_EQ(s->LockRegion(size, size, LOCK_WRITE), STG_E_INVALIDFUNCTION);
    // A version 3 file stops below 2 GB: refused before anything is allocated.
    ULARGE_INTEGER huge;
    huge.QuadPart = 3ull << 30;
    EXPECT_EQ(s->SetSize(huge), STG_E_MEDIUMFULL);
    to.QuadPart = 0x7FFFFFFF;
    ASSERT_EQ(s->Seek(to, STREAM_SEEK_SET, &pos), S_OK);
    EXPECT_EQ(s->Write("x", 1, &n), STG_E_MEDIUMFULL);
    EXPECT_EQ(n, 0u);
    s.reset();
    m_root.reset();
    EXPECT_EQ(ListFile(m_file).size(), 1u);
    EXPECT_EQ(RunTool("/usr/bin/python3 " + Quote(SourceDir() + "/olelist.py") + " " + Quote(m_file)).status,
              0);
}

TEST_F(CompoundSemantics, ManySiblingsStayBalancedThroughDeletes) {
    std::vector<int> ids(3000);
    std::iota(ids.begin(), ids.end(), 0);
    for (int i : ids) ASSERT_EQ(PutStream(m_root.get(), ("e" + std::to_string(i)).c_str(), {}), S_OK);
    std::mt19937 rng(7);
    std::shuffle(ids.begin(), ids.end(), rng);
    for (int k = 0; k < 2000; ++k)
        ASSERT_EQ(m_root->DestroyElement(("E" + std::to_string(ids[k])).c_str()), S_OK);
    m_root.reset();
    // A red-black tree of 1000 has depth at most 2*log2(1001) ~ 20.
    EXPECT_LE(CheckDirectoryTrees(m_file), 20);
    Com<IStorage> r;
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, r.out()), S_OK);
    for (int k = 2000; k < 3000; ++k) {
        HRESULT hr;
        GetStream(r.get(), ("e" + std::to_string(ids[k])).c_str(), &hr);
        ASSERT_EQ(hr, S_OK) << ids[k];
    }
    EXPECT_EQ(Names(r.get()).size(), 1000u);
}

// An enumerator goes on after the last element it returned, whatever came or went meanwhile.
TEST_F(CompoundSemantics, EnumerationSurvivesChangesUnderway) {
    for (const char* n : {"a", "b", "c", "d", "e"}) ASSERT_EQ(PutStream(m_root.get(), n, {}), S_OK);
    Com<IEnumSTATSTG> en;
    ASSERT_EQ(m_root->EnumElements(0, nullptr, 0, en.out()), S_OK);
    auto next = [](IEnumSTATSTG* e) {
        STATSTG st;
        ULONG got = 0;
        if (e->Next(1, &st, &got) != S_OK) return std::string("(end)");
        std::string name = WideToAnsi(st.pwcsName);
        CoTaskMemFree(st.pwcsName);
        return name;
    };
    EXPECT_EQ(next(en.get()), "a");
    ASSERT_EQ(m_root->DestroyElement("a"), S_OK);  // the element just returned
    EXPECT_EQ(next(en.get()), "b");
    ASSERT_EQ(PutStream(m_root.get(), "aa", {}), S_OK);  // longer names sort after every short one
    Com<IEnumSTATSTG> copy;
    ASSERT_EQ(en->Clone(copy.out()), S_OK);
    EXPECT_EQ(next(en.get()), "c");
    ASSERT_EQ(m_root->RenameElement("d", "dd"), S_OK);
    EXPECT_EQ(next(en.get()), "e");
    EXPECT_EQ(next(en.get()), "aa");
    EXPECT_EQ(next(en.get()), "dd");
    EXPECT_EQ(next(en.get()), "(end)");
    EXPECT_EQ(next(copy.get()), "c");
    ASSERT_EQ(copy->Skip(2), S_OK);
    EXPECT_EQ(next(copy.get()), "dd");
    ASSERT_EQ(en->Reset(), S_OK);
    EXPECT_EQ(next(en.get()), "b");
}

TEST_F(CompoundSemantics, CopyToCopiesTheWholeTree) {
    CLSID clsid = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    ASSERT_EQ(m_root->SetClass(clsid), S_OK);
    Com<IStorage> sub;
    ASSERT_EQ(m_root->CreateStorage("sub", kRW, 0, 0, sub.out()), S_OK);
    ASSERT_EQ(PutStream(sub.get(), "big", Pattern(9000, 1)), S_OK);
    ASSERT_EQ(PutStream(m_root.get(), "top", Pattern(10, 2)), S_OK);
    ASSERT_EQ(PutStream(m_root.get(), "skip", Pattern(10, 3)), S_OK);
    EXPECT_EQ(m_root->CopyTo(0, nullptr, nullptr, sub.get()), STG_E_ACCESSDENIED);
    sub.reset();
    std::string copy = m_dir.file("copy.ole");
    Com<IStorage> dest;
    ASSERT_EQ(StgCreateDocfile(copy.c_str(), kRW | STGM_CREATE, 0, dest.out()), S_OK);
    ASSERT_EQ(PutStream(dest.get(), "top", Pattern(99, 9)), S_OK);  // replaced by the copy
    OLECHAR skip[] = u"SKIP";
    LPOLESTR exclude[] = {skip, nullptr};
    ASSERT_EQ(m_root->CopyTo(0, nullptr, exclude, dest.get()), S_OK);
    dest.reset();
    auto expected = ListTree(m_root.get());
    expected.erase(
        std::remove_if(expected.begin(), expected.end(), [](auto& l) { return l.rfind("f skip", 0) == 0; }),
        expected.end());
    EXPECT_EQ(ListFile(copy), expected);
    Com<IStorage> r;
    ASSERT_EQ(StgOpenStorage(copy.c_str(), nullptr, kRO, nullptr, 0, r.out()), S_OK);
    STATSTG st;
    ASSERT_EQ(r->Stat(&st, STATFLAG_DEFAULT), S_OK);
    EXPECT_TRUE(st.clsid == clsid);
    EXPECT_EQ(WideToAnsi(st.pwcsName), copy);
    CoTaskMemFree(st.pwcsName);
}

// Large streams waiting for a commit may move to a scratch file; nothing about them may change for it.
TEST_F(CompoundSemantics, SpilledStreamsBehaveLikeHeldOnes) {
    struct Restore {
        std::uint64_t old = tavik::platform::SpillThreshold();
        ~Restore() { tavik::platform::SpillThreshold() = old; }
    } restore;
    tavik::platform::SpillThreshold() = 0;
    ASSERT_EQ(PutStream(m_root.get(), "a", Pattern(5000, 1)), S_OK);
    ASSERT_EQ(PutStream(m_root.get(), "small", Pattern(100, 2)), S_OK);
    EXPECT_EQ(GetStream(m_root.get(), "a"), Pattern(5000, 1));
    std::vector<unsigned char> a = Pattern(5000, 1);
    {
        Com<IStream> s;
        ASSERT_EQ(m_root->OpenStream("a", nullptr, kRW, 0, s.out()), S_OK);
        LARGE_INTEGER at;
        at.QuadPart = 4000;
        ASSERT_EQ(s->Seek(at, STREAM_SEEK_SET, nullptr), S_OK);
        auto tail = Pattern(3000, 3);
        ASSERT_EQ(s->Write(tail.data(), static_cast<ULONG>(tail.size()), nullptr), S_OK);
        a.resize(4000);
        a.insert(a.end(), tail.begin(), tail.end());
    }
    {
        Com<IStorage> t;
        ASSERT_EQ(m_root->CreateStorage("t", kRW | STGM_TRANSACTED, 0, 0, t.out()), S_OK);
        ASSERT_EQ(PutStream(t.get(), "kept", Pattern(6000, 4)), S_OK);
        ASSERT_EQ(t->Commit(STGC_DEFAULT), S_OK);
        ASSERT_EQ(PutStream(t.get(), "dropped", Pattern(7000, 5)), S_OK);
    }
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    // After a commit the next streams go to a new scratch file; the committed ones read from the file.
    ASSERT_EQ(PutStream(m_root.get(), "b", Pattern(9000, 6)), S_OK);
    EXPECT_EQ(GetStream(m_root.get(), "a"), a);
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    m_root.reset();

    Com<IStorage> r;
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, r.out()), S_OK);
    EXPECT_EQ(GetStream(r.get(), "a"), a);
    EXPECT_EQ(GetStream(r.get(), "b"), Pattern(9000, 6));
    EXPECT_EQ(GetStream(r.get(), "small"), Pattern(100, 2));
    Com<IStorage> t = OpenPath(r.get(), "t", kRO);
    ASSERT_TRUE(t.get());
    EXPECT_EQ(GetStream(t.get(), "kept"), Pattern(6000, 4));
    HRESULT hr = S_OK;
    GetStream(t.get(), "dropped", &hr);
    EXPECT_EQ(hr, STG_E_FILENOTFOUND);
    // Scratch files have no names: nothing is left beside the store.
    auto entries = std::distance(std::filesystem::directory_iterator(m_dir.path()), {});
    EXPECT_EQ(entries, 1);
}

// Streams written in interleaved pieces move and grow inside the engine's buffers, across many of its
// slabs; the bytes must survive that, a commit that frees them, and the reuse of that room afterwards.
TEST_F(CompoundSemantics, InterleavedWritesKeepEveryStreamsBytes) {
    constexpr int kStreams = 120;
    std::vector<std::vector<unsigned char>> expect(kStreams);
    std::vector<Com<IStream>> streams(kStreams);
    for (int i = 0; i < kStreams; ++i)
        ASSERT_EQ(m_root->CreateStream(("s" + std::to_string(i)).c_str(), kRW, 0, 0, streams[i].out()), S_OK);
    std::mt19937 rng(11);
    // Pieces up to 20 KB take streams past the size kept in slabs, about 7 MB in all.
    for (int round = 0; round < 6; ++round) {
        for (int i = 0; i < kStreams; ++i) {
            auto piece = Pattern(rng() % 20000, static_cast<unsigned>(round * kStreams + i));
            ULONG n = 0;
            ASSERT_EQ(streams[i]->Write(piece.data(), static_cast<ULONG>(piece.size()), &n), S_OK);
            expect[i].insert(expect[i].end(), piece.begin(), piece.end());
        }
    }
    streams.clear();
    auto check = [&](IStorage* stg) {
        for (int i = 0; i < kStreams; ++i)
            ASSERT_EQ(GetStream(stg, ("s" + std::to_string(i)).c_str()), expect[i]) << i;
    };
    check(m_root.get());
    ASSERT_EQ(m_root->Commit(STGC_DEFAULT), S_OK);
    check(m_root.get());
    // Half of them rewritten after the commit let go of the in-memory copies.
    for (int i = 0; i < kStreams; i += 2) {
        expect[i] = Pattern(rng() % 9000, static_cast<unsigned>(1000 + i));
        ASSERT_EQ(PutStream(m_root.get(), ("s" + std::to_string(i)).c_str(), expect[i]), S_OK);
    }
    check(m_root.get());
    m_root.reset();
    Com<IStorage> r;
    ASSERT_EQ(StgOpenStorage(m_file.c_str(), nullptr, kRO, nullptr, 0, r.out()), S_OK);
    check(r.get());
}

}  // namespace
}  // namespace tavik::test
