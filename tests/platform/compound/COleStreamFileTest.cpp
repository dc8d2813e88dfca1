// The CFile surface over a stream: data goes through, failures arrive as CFileException.
#include <gtest/gtest.h>

#include "platform/COleStreamFile.h"
#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

// Runs f, expects a CFileException, returns (cause, code) and deletes it.
template <class F>
std::pair<int, LONG> Thrown(F f) {
    try {
        f();
    } catch (CFileException* e) {
        std::pair<int, LONG> r{e->m_cause, e->m_lOsError};
        e->Delete();
        return r;
    }
    ADD_FAILURE() << "no CFileException";
    return {-1, -1};
}

TEST(COleStreamFile, ReadsWritesAndReportsFailures) {
    TempDir dir;
    std::string path = dir.file("f.ole");
    Com<IStorage> root;
    ASSERT_EQ(StgCreateDocfile(path.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
    {
        COleStreamFile file;
        ASSERT_TRUE(file.CreateStream(root.get(), "Body"));
        file.Write("hello world", 11);
        EXPECT_EQ(file.GetLength(), 11u);
        EXPECT_EQ(file.Seek(-5, CFile::end), 6u);
        char buf[16] = {};
        EXPECT_EQ(file.Read(buf, sizeof buf), 5u);
        EXPECT_STREQ(buf, "world");
        file.SetLength(5);
        EXPECT_EQ(file.GetLength(), 5u);
        EXPECT_EQ(Thrown([&] { file.Seek(-1, CFile::begin); }).first, CFileException::badSeek);
        EXPECT_EQ(file.GetPosition(), 11u);  // a failed seek leaves the position
        file.Close();
        EXPECT_EQ(file.GetStream(), nullptr);
    }
    EXPECT_EQ(GetStream(root.get(), "body"), (std::vector<unsigned char>{'h', 'e', 'l', 'l', 'o'}));

    COleStreamFile file;
    CFileException error;
    EXPECT_FALSE(file.OpenStream(root.get(), "missing", CFile::modeRead | CFile::shareExclusive, &error));
    EXPECT_EQ(error.m_cause, CFileException::fileNotFound);
    EXPECT_EQ(error.m_lOsError, STG_E_FILENOTFOUND);
    ASSERT_TRUE(file.OpenStream(root.get(), "Body", CFile::modeRead | CFile::shareExclusive));
    // A second open of an open stream is refused; writing a read-only one throws.
    COleStreamFile second;
    EXPECT_FALSE(second.OpenStream(root.get(), "Body", CFile::modeRead | CFile::shareExclusive, &error));
    EXPECT_EQ(error.m_lOsError, STG_E_ACCESSDENIED);
    auto denied = Thrown([&] { file.Write("x", 1); });
    EXPECT_EQ(denied.first, CFileException::accessDenied);
    EXPECT_EQ(denied.second, STG_E_ACCESSDENIED);
    // Destroying the element under an open file makes every later call fail.
    ASSERT_EQ(root->DestroyElement("Body"), S_OK);
    char c;
    EXPECT_EQ(Thrown([&] { file.Read(&c, 1); }).second, STG_E_REVERTED);
    EXPECT_EQ(Thrown([&] {
                  COleStreamFile empty;
                  empty.Read(&c, 1);
              }).first,
              CFileException::invalidFile);
}

}  // namespace
}  // namespace tavik::test
