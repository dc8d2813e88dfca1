// A commit that fails at any write, flush or rename leaves the old file whole, no temporary file, and a
// handle that can commit again.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "platform/compound/internal/Handles.h"
#include "platform/internal/SystemCalls.h"
#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"
#include "tests/support/WriteFaults.h"

namespace tavik::test {
namespace {

enum class Kind { Write, Fsync, Rename };

struct Fault {
    Kind kind;
    int failAt = 0;  // 1-based call to fail; 0 = never
    int calls = 0;
    int error = ENOSPC;
    bool shortWrites = false;
    bool hit = false;
} g_fault;

bool Trip(Kind k) {
    if (g_fault.kind != k) return false;
    if (++g_fault.calls != g_fault.failAt) return false;
    g_fault.hit = true;
    errno = g_fault.error;
    return true;
}

const platform::SystemCalls& Real() { return platform::RealSystemCalls(); }

ssize_t FaultyWrite(int fd, const iovec* pieces, int count) {
    if (Trip(Kind::Write)) return -1;
    // Short writes are legal and must be continued, not taken for failures: half of the first piece.
    if (g_fault.shortWrites && pieces[0].iov_len > 1) {
        iovec half{pieces[0].iov_base, pieces[0].iov_len / 2};
        return Real().writev(fd, &half, 1);
    }
    return Real().writev(fd, pieces, count);
}
int FaultyFsync(int fd) { return Trip(Kind::Fsync) ? -1 : Real().fsync(fd); }
int FaultyRename(const char* a, const char* b) { return Trip(Kind::Rename) ? -1 : Real().rename(a, b); }

class FaultScope {
public:
    FaultScope(Kind kind, int failAt, int error, bool shortWrites) {
        g_fault = Fault{kind, failAt, 0, error, shortWrites};
        m_calls->writev = FaultyWrite;
        m_calls->fsync = FaultyFsync;
        m_calls->rename = FaultyRename;
    }

private:
    platform::ScopedSystemCalls m_calls;
};

std::vector<std::string> DirListing(const TempDir& dir) {
    std::vector<std::string> names;
    for (auto& e : std::filesystem::directory_iterator(dir.path()))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void MakeOldState(const std::string& file) {
    Com<IStorage> root;
    ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
    ASSERT_EQ(PutStream(root.get(), "keep", Pattern(3 << 20, 1)), S_OK);
    ASSERT_EQ(PutStream(root.get(), "small", Pattern(100, 2)), S_OK);
    ASSERT_EQ(PutStream(root.get(), "gone", Pattern(5000, 3)), S_OK);
}

// Old state -> new state: one stream replaced, one added (over a megabyte, so several writes), one removed.
void MakeNewState(IStorage* root) {
    ASSERT_EQ(PutStream(root, "small", Pattern(200, 4)), S_OK);
    ASSERT_EQ(PutStream(root, "added", Pattern(1500000, 5)), S_OK);
    ASSERT_EQ(root->DestroyElement("gone"), S_OK);
}

TEST(CompoundCrashSafety, EveryFailurePointLeavesOldOrNew) {
    TempDir dir;
    std::string file = dir.file("f.ole");
    MakeOldState(file);
    const auto names = DirListing(dir);
    // Read by olefile, which takes no lock, while our handle holds the file.
    const std::string olelist = "/usr/bin/python3 " + Quote(SourceDir() + "/olelist.py") + " " + Quote(file);
    const auto oldOnDisk = RunTool(olelist).out;
    int failures = 0;
    for (Kind kind : {Kind::Write, Kind::Fsync, Kind::Rename}) {
        for (int n = 1;; ++n) {
            ASSERT_LT(n, 100) << "commit never finished";
            MakeOldState(file);
            Com<IStorage> root;
            ASSERT_EQ(StgOpenStorage(file.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, root.out()),
                      S_OK);
            MakeNewState(root.get());
            const auto expected = ListTree(root.get());
            HRESULT hr;
            {
                // Short writes where writes do not fail: every commit still has to land whole.
                FaultScope fault(kind, n, kind == Kind::Write ? ENOSPC : EIO, kind != Kind::Write);
                hr = root->Commit(STGC_DEFAULT);
            }
            if (SUCCEEDED(hr)) {
                // Either no call of this kind was left to fail, or it was the directory flush after the
                // rename, which cannot undo anything any more.
                ASSERT_EQ(hr, S_OK);
                root.reset();
                EXPECT_EQ(ListFile(file), expected);
                if (!g_fault.hit) break;
                continue;
            }
            ++failures;
            EXPECT_TRUE(g_fault.hit);
            EXPECT_EQ(hr, kind == Kind::Write ? STG_E_MEDIUMFULL : STG_E_WRITEFAULT) << n;
            EXPECT_EQ(DirListing(dir), names) << "temporary file left after failure " << n;
            EXPECT_EQ(RunTool(olelist).out, oldOnDisk) << "file changed by failed commit " << n;
            // The handle keeps its changes and commits them once the disk is well again.
            EXPECT_EQ(ListTree(root.get()), expected);
            ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
            root.reset();
            EXPECT_EQ(ListFile(file), expected);
        }
    }
    // Several writes (the file is over 4 MB, written a megabyte at a time), one flush, one rename.
    EXPECT_GE(failures, 6);
}

// Streams that wait for the commit in the scratch file: a failure while they move there or while the
// commit copies them out loses nothing, and the handle still holds every change.
TEST(CompoundCrashSafety, ScratchFileFailuresLoseNothing) {
    struct Restore {
        std::uint64_t old = tavik::platform::SpillThreshold();
        ~Restore() { tavik::platform::SpillThreshold() = old; }
    } restore;
    tavik::platform::SpillThreshold() = 0;
    TempDir dir;
    std::string file = dir.file("f.ole");
    auto makeOld = [&] {
        Com<IStorage> root;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
        ASSERT_EQ(PutStream(root.get(), "small", Pattern(100, 2)), S_OK);
        ASSERT_EQ(PutStream(root.get(), "gone", Pattern(5000, 3)), S_OK);
    };
    makeOld();
    const std::string oldBytes = ReadFile(file);
    const auto names = DirListing(dir);
    int failures = SweepWriteFaults([&](int n) {
        SCOPED_TRACE(n);
        makeOld();
        Com<IStorage> root;
        EXPECT_EQ(StgOpenStorage(file.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, root.out()), S_OK);
        HRESULT hr;
        bool hit;
        std::vector<std::string> expected;
        {
            WriteFault fault(n, ENOSPC);
            for (unsigned i = 0; i < 4; ++i) {
                std::string name = "spilled" + std::to_string(i);
                EXPECT_EQ(PutStream(root.get(), name.c_str(), Pattern(20000 + i * 7000, 10 + i)), S_OK);
            }
            EXPECT_EQ(PutStream(root.get(), "small", Pattern(200, 4)), S_OK);
            EXPECT_EQ(root->DestroyElement("gone"), S_OK);
            expected = ListTree(root.get());
            hr = root->Commit(STGC_DEFAULT);
            hit = fault.Hit();
        }
        EXPECT_EQ(ListTree(root.get()), expected);
        if (FAILED(hr)) {
            EXPECT_EQ(ReadFile(file), oldBytes);
            EXPECT_EQ(root->Commit(STGC_DEFAULT), S_OK);
        }
        root.reset();
        EXPECT_EQ(ListFile(file), expected);
        EXPECT_EQ(DirListing(dir), names);
        return hit;
    });
    EXPECT_GE(failures, 6);
}

std::uint64_t g_bytesRead = 0;
ssize_t CountingPread(int fd, void* buf, std::size_t n, off_t off) {
    ssize_t got = Real().pread(fd, buf, n, off);
    if (got > 0) g_bytesRead += static_cast<std::uint64_t>(got);
    return got;
}

// Opening reads the tables and the directory only; stream bytes come when asked for, and a commit
// that changed one small stream still carries the big one across intact.
TEST(CompoundLazy, OpenReadsTablesNotStreams) {
    TempDir dir;
    std::string file = dir.file("lazy.ole");
    {
        Com<IStorage> root;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
        ASSERT_EQ(PutStream(root.get(), "big", Pattern(20 << 20, 1)), S_OK);
        ASSERT_EQ(PutStream(root.get(), "small", Pattern(100, 2)), S_OK);
    }
    g_bytesRead = 0;
    {
        platform::ScopedSystemCalls calls;
        calls->pread = CountingPread;
        Com<IStorage> root;
        ASSERT_EQ(StgOpenStorage(file.c_str(), nullptr, kRW, nullptr, 0, root.out()), S_OK);
        EXPECT_EQ(GetStream(root.get(), "small"), Pattern(100, 2));
        // 20 MB of data needs 160 KB of FAT; reads come in 256 KB blocks.
        EXPECT_LT(g_bytesRead, 2u << 20);
        ASSERT_EQ(PutStream(root.get(), "small", Pattern(50, 3)), S_OK);
    }
    Com<IStorage> root;
    ASSERT_EQ(StgOpenStorage(file.c_str(), nullptr, kRO, nullptr, 0, root.out()), S_OK);
    EXPECT_EQ(GetStream(root.get(), "big"), Pattern(20 << 20, 1));
    EXPECT_EQ(GetStream(root.get(), "small"), Pattern(50, 3));
}

}  // namespace
}  // namespace tavik::test
