// CFile, CMemFile, CStdioFile and the file exceptions, on real files in a temporary directory.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "platform/CFile.h"
#include "platform/CMemFile.h"
#include "platform/CStdioFile.h"
#include "platform/FileSystem.h"
#include "platform/MessageBox.h"
#include "platform/internal/SystemCalls.h"
#include "tests/support/TempDir.h"

using tavik::test::ReadFile;
using tavik::test::TempDir;
using tavik::test::WriteFile;

namespace {

// Runs f, expects a CFileException* with the cause, and deletes it.
template <class F>
void expectFileException(F f, int cause, const char* where) {
    SCOPED_TRACE(where);
    try {
        f();
        ADD_FAILURE() << "no exception";
    } catch (CFileException* e) {
        EXPECT_EQ(e->m_cause, cause);
        e->Delete();
    }
}

// True when f throws an E*, which it deletes.
template <class E, class F>
bool throws(F f) {
    try {
        f();
    } catch (E* e) {
        e->Delete();
        return true;
    }
    return false;
}

}  // namespace

TEST(FileExceptionTest, MessagesAreTruncatedNameTheFileAndReachTheSink) {
    CFileException e(CFileException::accessDenied, 5, "/tmp/x.tvd");
    char buf[64];
    std::memset(buf, 0xbd, sizeof buf);
    UINT help = 0xdeadbeef;
    ASSERT_TRUE(e.GetErrorMessage(buf, 10, &help));
    EXPECT_STREQ(buf, "Access to");
    EXPECT_EQ(static_cast<unsigned char>(buf[10]), 0xbd);
    EXPECT_EQ(help, 0u);
    ASSERT_TRUE(e.GetErrorMessage(buf, sizeof buf));
    EXPECT_STREQ(buf, "Access to /tmp/x.tvd was denied.");

    CFileException(CFileException::fileNotFound).GetErrorMessage(buf, sizeof buf);
    EXPECT_STREQ(buf, "an unnamed file was not found.");

    CException plain(FALSE);
    std::memset(buf, 'x', sizeof buf);
    EXPECT_FALSE(plain.GetErrorMessage(buf, sizeof buf));
    EXPECT_EQ(buf[0], '\0');

    static std::string shown;
    static UINT shownType;
    AfxSetMessageBoxSink([](const char* text, UINT type) {
        shown = text;
        shownType = type;
        return IDCANCEL;
    });
    EXPECT_EQ(CMemoryException(FALSE).ReportError(MB_ICONSTOP), IDCANCEL);
    EXPECT_EQ(shown, "Out of memory.");
    EXPECT_EQ(shownType, MB_ICONSTOP);
    plain.ReportError();
    EXPECT_EQ(shown, "No error message is available.");
    AfxSetMessageBoxSink(nullptr);
    EXPECT_EQ(AfxMessageBox("to stderr", MB_YESNO), IDYES);
}

// The other causes come from real failures in the CFile tests below.
TEST(FileExceptionTest, ErrorCodesMapToCauses) {
    EXPECT_EQ(CFileException::ErrnoToException(ENOTDIR), CFileException::badPath);
    EXPECT_EQ(CFileException::OsErrorToException(99999), CFileException::genericException);
    CFileException::ThrowErrno(0);  // nothing to throw
    CFileException::ThrowOsError(0);
    try {
        CFileException::ThrowErrno(ENOENT, "a.txt");
        FAIL();
    } catch (CFileException* e) {
        EXPECT_EQ(e->m_lOsError, ERROR_FILE_NOT_FOUND);
        EXPECT_EQ(e->m_strFileName, "a.txt");
        e->Delete();
    }
}

TEST(CFileTest, WriteSeekReadAndLength) {
    TempDir dir;
    std::string path = dir.file("data.bin");
    CFile f(path.c_str(), CFile::modeCreate | CFile::modeReadWrite);
    f.Write("hello world", 11);
    EXPECT_EQ(f.GetLength(), 11u);
    EXPECT_EQ(f.GetPosition(), 11u);
    f.SeekToBegin();
    char buf[32] = {};
    EXPECT_EQ(f.Read(buf, 5), 5u);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(f.Seek(-3, CFile::end), 8u);
    EXPECT_EQ(f.Read(buf, sizeof buf), 3u);  // fewer at the end
    EXPECT_EQ(f.Read(buf, sizeof buf), 0u);

    expectFileException([&] { f.Seek(-100, CFile::current); }, CFileException::badSeek, "seek before start");
    EXPECT_EQ(f.GetPosition(), 11u);

    f.Seek(20, CFile::begin);  // past the end, then a write fills the gap with zeros
    f.Write("!", 1);
    EXPECT_EQ(f.GetLength(), 21u);
    f.SetLength(5);
    EXPECT_EQ(f.GetLength(), 5u);
    EXPECT_EQ(f.GetFileTitle(), "data");
    f.Close();
    EXPECT_EQ(ReadFile(path), "hello");
}

TEST(CFileTest, OpenModesCreateTruncateAndFail) {
    TempDir dir;
    std::string path = dir.file("f.txt");
    CFile f;
    CFileException error;
    EXPECT_FALSE(f.Open(path.c_str(), CFile::modeRead, &error));
    EXPECT_EQ(error.m_cause, CFileException::fileNotFound);
    EXPECT_EQ(error.m_strFileName, CString(path.c_str()));
    expectFileException([&] { CFile g(path.c_str(), CFile::modeRead); }, CFileException::fileNotFound,
                        "ctor");

    WriteFile(path, "keep me");
    {
        CFile g(path.c_str(), CFile::modeCreate | CFile::modeNoTruncate | CFile::modeWrite);
        EXPECT_EQ(g.GetLength(), 7u);
    }
    EXPECT_EQ(ReadFile(path), "keep me");
    { CFile g(path.c_str(), CFile::modeCreate | CFile::modeWrite); }
    EXPECT_EQ(ReadFile(path), "");

    // A read-only open cannot write; a directory is not a file.
    CFile r(path.c_str(), CFile::modeRead);
    expectFileException([&] { r.Write("x", 1); }, CFileException::accessDenied, "write on read-only");
    EXPECT_FALSE(f.Open(dir.path().c_str(), CFile::modeRead, &error));
    EXPECT_EQ(error.m_cause, CFileException::accessDenied);
}

TEST(CFileTest, NewFilesAreOwnerOnlyAndExistingOnesKeepTheirMode) {
    TempDir dir;
    mode_t old = umask(0);
    { CFile a(dir.file("new").c_str(), CFile::modeCreate | CFile::modeWrite); }
    WriteFile(dir.file("shared"), "x");
    chmod(dir.file("shared").c_str(), 0644);
    { CFile b(dir.file("shared").c_str(), CFile::modeCreate | CFile::modeWrite); }
    umask(old);
    struct stat st;
    ASSERT_EQ(stat(dir.file("new").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(dir.file("shared").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
}

TEST(CFileTest, ShareModesCollide) {
    TempDir dir;
    std::string path = dir.file("locked");
    WriteFile(path, "data");
    CFile first(path.c_str(), CFile::modeReadWrite | CFile::shareExclusive);
    CFile second;
    CFileException error;
    EXPECT_FALSE(second.Open(path.c_str(), CFile::modeRead | CFile::shareExclusive, &error));
    EXPECT_EQ(error.m_cause, CFileException::sharingViolation);
    EXPECT_FALSE(second.Open(path.c_str(), CFile::modeRead | CFile::shareDenyNone, &error));
    // A colliding truncating open must leave the data alone.
    EXPECT_FALSE(
        second.Open(path.c_str(), CFile::modeCreate | CFile::modeWrite | CFile::shareDenyNone, &error));
    EXPECT_EQ(ReadFile(path), "data");
    first.Close();
    EXPECT_TRUE(second.Open(path.c_str(), CFile::modeRead | CFile::shareExclusive, &error));
    second.Close();

    CFile reader1(path.c_str(), CFile::modeRead | CFile::shareDenyWrite);
    CFile reader2(path.c_str(), CFile::modeRead | CFile::shareDenyWrite);
    EXPECT_FALSE(second.Open(path.c_str(), CFile::modeWrite | CFile::shareDenyNone, &error));
}

TEST(CFileTest, StatusRenameAndRemove) {
    TempDir dir;
    std::string a = dir.file("a.txt"), b = dir.file("b.txt");
    WriteFile(a, "12345");
    WriteFile(b, "old");
    CFileStatus st;
    ASSERT_TRUE(CFile::GetStatus(a.c_str(), st));
    EXPECT_EQ(st.m_size, 5u);
    EXPECT_EQ(st.m_attribute & CFile::directory, 0);
    EXPECT_LE(std::llabs(static_cast<long long>((CTime::GetCurrentTime() - st.m_mtime).GetTotalSeconds())),
              60);
    EXPECT_STREQ(st.m_szFullName, a.c_str());
    ASSERT_TRUE(CFile::GetStatus(dir.path().c_str(), st));
    EXPECT_NE(st.m_attribute & CFile::directory, 0);
    EXPECT_FALSE(CFile::GetStatus(dir.file("missing").c_str(), st));

    CFile::Rename(a.c_str(), b.c_str());  // replaces the target
    EXPECT_EQ(ReadFile(b), "12345");
    expectFileException([&] { CFile::Rename(a.c_str(), b.c_str()); }, CFileException::fileNotFound, "rename");
    CFile::Remove(b.c_str());
    expectFileException([&] { CFile::Remove(b.c_str()); }, CFileException::fileNotFound, "remove");
}

namespace {
// Short writes of one byte, one EINTR at the second call, then the sixth call fails with a full disk.
int g_writes = 0;
ssize_t OneByteWrites(int fd, const void* buf, size_t n) {
    ++g_writes;
    if (g_writes == 2) {
        errno = EINTR;
        return -1;
    }
    if (g_writes == 6) {
        errno = ENOSPC;
        return -1;
    }
    return tavik::platform::RealSystemCalls().write(fd, buf, n > 0 ? 1 : 0);
}
}  // namespace

TEST(CFileTest, FileSystemFaultsBecomeExceptions) {
    TempDir dir;
    std::string path = dir.file("faulty");
    tavik::platform::ScopedSystemCalls calls;
    calls->open = [](const char*, int, mode_t) {
        errno = EMFILE;
        return -1;
    };
    CFile f;
    CFileException error;
    EXPECT_FALSE(f.Open(path.c_str(), CFile::modeCreate | CFile::modeReadWrite, &error));
    EXPECT_EQ(error.m_cause, CFileException::tooManyOpenFiles);
    calls->open = tavik::platform::RealSystemCalls().open;

    g_writes = 0;
    calls->write = OneByteWrites;
    ASSERT_TRUE(f.Open(path.c_str(), CFile::modeCreate | CFile::modeReadWrite));
    f.Write("abc", 3);  // 1 byte, EINTR, 1 byte, 1 byte
    EXPECT_EQ(g_writes, 4);
    EXPECT_EQ(ReadFile(path), "abc");
    f.Write("d", 1);
    try {
        f.Write("ef", 2);
        FAIL();
    } catch (CFileException* e) {
        EXPECT_EQ(e->m_cause, CFileException::diskFull);
        EXPECT_EQ(e->m_strFileName, CString(path.c_str()));
        e->Delete();
    }
    calls->fsync = [](int) {
        errno = EIO;
        return -1;
    };
    expectFileException([&] { f.Flush(); }, CFileException::hardIO, "fsync");
}

namespace {
// Exposes the buffer bookkeeping, and can behave as a fixed view whose growth is switched off.
class ProbeMemFile : public CMemFile {
public:
    using CMemFile::CMemFile;
    std::size_t bufferSize() const { return m_nBufferSize; }
    BYTE* buffer() const { return m_lpBuffer; }
};

class FixedViewFile : public CMemFile {
public:
    FixedViewFile(BYTE* view, UINT size) : CMemFile(1024) { Attach(view, size, 0); }
    ~FixedViewFile() override { Detach(); }

protected:
    BYTE* Alloc(std::size_t) override { return nullptr; }
    BYTE* Realloc(BYTE*, std::size_t) override { return nullptr; }
    void Free(BYTE*) override {}
    void GrowFile(std::size_t) override {}
};
}  // namespace

TEST(CMemFileTest, GrowsInWholeStepsAndZeroFillsGaps) {
    ProbeMemFile f(1024);
    f.Write("x", 1);
    EXPECT_EQ(f.bufferSize(), 1024u);
    std::string big(1500, 'y');
    f.Write(big.data(), UINT(big.size()));
    EXPECT_EQ(f.bufferSize(), 2048u);
    EXPECT_EQ(f.GetLength(), 1501u);

    f.Seek(1600, CFile::begin);
    f.Write("z", 1);
    EXPECT_EQ(f.GetLength(), 1601u);
    char buf[200];
    f.Seek(1501, CFile::begin);
    ASSERT_EQ(f.Read(buf, sizeof buf), 100u);  // fewer bytes past the end
    for (int i = 0; i < 99; ++i) ASSERT_EQ(buf[i], 0) << i;
    EXPECT_EQ(buf[99], 'z');

    f.SetLength(10);
    EXPECT_EQ(f.GetPosition(), 10u);
    EXPECT_EQ(f.Read(buf, 1), 0u);
    expectFileException([&] { f.Seek(-11, CFile::current); }, CFileException::badSeek, "mem seek");
}

TEST(CMemFileTest, AttachedBuffers) {
    BYTE fixed[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    ProbeMemFile f(fixed, 8);  // grow 0: the whole buffer is the content
    EXPECT_EQ(f.GetLength(), 8u);
    f.Seek(6, CFile::begin);
    EXPECT_TRUE(throws<CMemoryException>([&] { f.Write("XYZ", 3); }));
    EXPECT_EQ(fixed[6], 'g');
    f.Seek(0, CFile::begin);
    f.Write("A", 1);
    EXPECT_EQ(fixed[0], 'A');
    EXPECT_EQ(f.Detach(), fixed);
    EXPECT_EQ(f.GetLength(), 0u);

    BYTE room[4] = {};
    ProbeMemFile g(room, 4, 16);  // growable: starts empty, moves to its own memory when it outgrows
    EXPECT_EQ(g.GetLength(), 0u);
    g.Write("1234567", 7);
    EXPECT_NE(g.buffer(), room);
    EXPECT_EQ(g.bufferSize(), 20u);  // 4 + one step of 16
    BYTE* owned = g.Detach();
    EXPECT_EQ(std::memcmp(owned, "1234567", 7), 0);
    std::free(owned);
}

TEST(CMemFileTest, DirectBufferAccessMovesThePosition) {
    CMemFile f(16);
    EXPECT_EQ(f.GetBufferPtr(CFile::bufferCheck), UINT(CFile::bufferDirect));
    void* start = nullptr;
    void* max = nullptr;
    f.Seek(2, CFile::begin);
    ASSERT_EQ(f.GetBufferPtr(CFile::bufferWrite, 5, &start, &max), 5u);
    std::memcpy(start, "abcde", 5);
    EXPECT_EQ(static_cast<BYTE*>(max) - static_cast<BYTE*>(start), 5);
    EXPECT_EQ(f.GetLength(), 7u);
    f.SeekToBegin();
    ASSERT_EQ(f.GetBufferPtr(CFile::bufferRead, 100, &start, &max), 7u);  // what is there, no more
    EXPECT_EQ(std::memcmp(start, "\0\0abcde", 7), 0);
    EXPECT_EQ(f.GetPosition(), 7u);
}

TEST(CMemFileTest, SubclassWithoutGrowthNeverWritesPastItsView) {
    BYTE view[16] = {};
    FixedViewFile f(view, 8);
    f.Seek(4, CFile::begin);
    EXPECT_TRUE(throws<CMemoryException>([&] { f.Write("123456", 6); }));
    EXPECT_EQ(view[8], 0);
    f.Write("1234", 4);
    EXPECT_EQ(std::memcmp(view + 4, "1234", 4), 0);
}

TEST(CStdioFileTest, ReadStringHandlesLineEnds) {
    TempDir dir;
    std::string path = dir.file("lines.txt");
    std::string longLine(5000, 'L');  // crosses the read-ahead buffer
    WriteFile(path, "one\r\ntwo\n\nthree\r\n" + longLine + "\r\nlast");
    CStdioFile f(path.c_str(), CFile::modeRead | CFile::typeText);
    CString line;
    const char* expected[] = {"one", "two", "", "three"};
    for (const char* e : expected) {
        ASSERT_TRUE(f.ReadString(line));
        EXPECT_EQ(line, e);
    }
    ASSERT_TRUE(f.ReadString(line));
    EXPECT_EQ(line.GetLength(), 5000);
    ASSERT_TRUE(f.ReadString(line));
    EXPECT_EQ(line, "last");
    EXPECT_FALSE(f.ReadString(line));
    EXPECT_TRUE(line.IsEmpty());

    CStdioFile bin(path.c_str(), CFile::modeRead | CFile::typeBinary);
    ASSERT_TRUE(bin.ReadString(line));
    EXPECT_EQ(line, "one\r");
}

TEST(CStdioFileTest, BufferFormKeepsNewlineAndRespectsLimit) {
    TempDir dir;
    std::string path = dir.file("lines.txt");
    std::string text = std::string(4095, 'a') + "\r\nbcdefgh\n";  // "\r\n" split across read-aheads
    WriteFile(path, text);
    CStdioFile f(path.c_str(), CFile::modeRead);
    std::vector<char> buf(5000, '\xbd');
    ASSERT_NE(f.ReadString(buf.data(), 5000), nullptr);
    EXPECT_EQ(std::strlen(buf.data()), 4096u);
    EXPECT_EQ(buf[4095], '\n');
    char small[4];
    std::memset(small, '\xbd', sizeof small);
    ASSERT_NE(f.ReadString(small, 4), nullptr);
    EXPECT_STREQ(small, "bcd");
    EXPECT_EQ(f.GetPosition(), 4097u + 3u);
    ASSERT_NE(f.ReadString(small, 4), nullptr);
    EXPECT_STREQ(small, "efg");
    ASSERT_NE(f.ReadString(small, 4), nullptr);
    EXPECT_STREQ(small, "h\n");
    EXPECT_EQ(f.ReadString(small, 4), nullptr);
}

TEST(CStdioFileTest, MixedReadsWritesAndSeeksStayInStep) {
    TempDir dir;
    std::string path = dir.file("mixed.txt");
    CStdioFile f(path.c_str(), CFile::modeCreate | CFile::modeReadWrite);
    f.WriteString("alpha\nbeta\ngamma\n");
    f.SeekToBegin();
    CString line;
    ASSERT_TRUE(f.ReadString(line));
    EXPECT_EQ(line, "alpha");
    EXPECT_EQ(f.GetPosition(), 6u);
    f.WriteString("BETA");  // overwrites at the logical position, not the read-ahead's
    f.SeekToBegin();
    char buf[32] = {};
    EXPECT_EQ(f.Read(buf, 17), 17u);
    EXPECT_STREQ(buf, "alpha\nBETA\ngamma\n");
    f.Close();
    EXPECT_EQ(ReadFile(path), "alpha\nBETA\ngamma\n");
}

TEST(FileSystemTest, CharacterDevicesCountAsTerminalsFilesAndPipesDoNot) {
    FILE* file = std::tmpfile();
    ASSERT_NE(file, nullptr);
    EXPECT_GE(_fileno(file), 0);
    EXPECT_EQ(_isatty(_fileno(file)), 0);
    std::fclose(file);
    FILE* device = std::fopen("/dev/null", "w");
    ASSERT_NE(device, nullptr);
    EXPECT_NE(_isatty(_fileno(device)), 0);
    std::fclose(device);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_EQ(_isatty(ends[0]), 0);
    close(ends[0]);
    close(ends[1]);
    EXPECT_EQ(_fileno(nullptr), -1);
    EXPECT_EQ(_isatty(-1), 0);
}
