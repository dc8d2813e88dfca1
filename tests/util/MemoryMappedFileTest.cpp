// The mapped memory file over real files and anonymous named mappings.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/CFile.h"
#include "platform/Kernel.h"
#include "platform/MessageBox.h"
#include "tests/support/TempDir.h"
#include "util/CMemoryMappedFile.h"

using tavik::test::ReadFile;
using tavik::test::TempDir;
using tavik::test::WriteFile;

namespace {

std::vector<std::string> g_boxes;
int recordBox(const char* text, UINT) {
    g_boxes.emplace_back(text);
    return IDOK;
}

class MemoryMappedFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_boxes.clear();
        AfxSetMessageBoxSink(&recordBox);
    }
    void TearDown() override { AfxSetMessageBoxSink(nullptr); }
    TempDir m_dir;
};

}  // namespace

TEST_F(MemoryMappedFileTest, ReadsAndWritesAFileThroughTheView) {
    std::string path = m_dir.file("shared.bin");
    std::string content(8192, 'a');
    content.replace(4096, 5, "hello");
    WriteFile(path, content);

    CFile file(path.c_str(), CFile::modeReadWrite);
    {
        CMemoryMappedFile mapped;
        ASSERT_TRUE(
            mapped.Open(nullptr, file.m_hFile, PAGE_READWRITE, 0, 8192, 0, FILE_MAP_ALL_ACCESS, 0, 0));
        EXPECT_EQ(mapped.GetLength(), 8192u);
        mapped.Seek(4096, CFile::begin);
        char word[6] = {};
        EXPECT_EQ(mapped.ReadFile(word, 5), 5u);
        EXPECT_STREQ(word, "hello");

        mapped.SeekToBegin();
        mapped.WriteFile("WORLD", 5);
        mapped.Flush(0, 5);
        EXPECT_EQ(ReadFile(path).substr(0, 5), "WORLD");

        // The file cannot grow past its view: the write fails whole and the file keeps its size.
        mapped.Seek(8190, CFile::begin);
        bool threw = false;
        try {
            mapped.WriteFile("xyz", 3);
        } catch (CMemoryException* e) {
            e->Delete();
            threw = true;
        }
        EXPECT_TRUE(threw);
        mapped.SetLength(1);
        EXPECT_EQ(mapped.GetLength(), 8192u);
        void* start = nullptr;
        EXPECT_EQ(mapped.GetBufferPtr(CFile::bufferCheck, 0, &start), 0u);
    }
    file.Close();
    EXPECT_EQ(ReadFile(path).size(), 8192u);
    EXPECT_EQ(ReadFile(path).substr(4096, 5), "hello");
    EXPECT_TRUE(g_boxes.empty());
}

TEST_F(MemoryMappedFileTest, NamedMappingsShareMemoryAndHandlesMoveBetweenObjects) {
    CMemoryMappedFile first, second;
    ASSERT_TRUE(first.Open("tavik-test-share", INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 4096, 0,
                           FILE_MAP_ALL_ACCESS, 0, 0));
    ASSERT_TRUE(second.Open("tavik-test-share", INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 4096, 0,
                            FILE_MAP_ALL_ACCESS, 0, 0));
    first.WriteFile("ping", 4);
    char got[5] = {};
    second.ReadFile(got, 4);
    EXPECT_STREQ(got, "ping");

    // A detached handle outlives the object's view and can be attached elsewhere.
    HANDLE mapping = first.Detach();
    ASSERT_NE(mapping, INVALID_HANDLE_VALUE);
    EXPECT_EQ(static_cast<unsigned char*>(first), nullptr);
    CMemoryMappedFile third;
    ASSERT_TRUE(third.Attach(mapping, 4096, FILE_MAP_READ, 0, 0));
    char again[5] = {};
    third.ReadFile(again, 4);
    EXPECT_STREQ(again, "ping");
    third.Close();
    // The object owned the attached handle and closed it.
    EXPECT_FALSE(CloseHandle(mapping));
}

TEST_F(MemoryMappedFileTest, FailuresReportByResultAndMessageBox) {
    CMemoryMappedFile mapped;
    // No file and no size: the mapping cannot be made.
    EXPECT_FALSE(
        mapped.Open(nullptr, INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 0, 0, FILE_MAP_ALL_ACCESS, 0, 0));
    ASSERT_EQ(g_boxes.size(), 1u);
    EXPECT_EQ(g_boxes[0], "Unable to open shared file\n");

    // A view past the mapping's end.
    ASSERT_FALSE(
        mapped.Open(nullptr, INVALID_HANDLE_VALUE, PAGE_READWRITE, 0, 4096, 0, FILE_MAP_ALL_ACCESS, 0, 8192));
    ASSERT_EQ(g_boxes.size(), 2u);
    EXPECT_EQ(g_boxes[1], "Unable to map view of a file");
    // The mapping is kept; a proper view then works, and unmapping twice is harmless.
    EXPECT_TRUE(mapped.MapViewOfFile(FILE_MAP_ALL_ACCESS, 0, 0, 4096));
    EXPECT_TRUE(mapped.UnmapViewOfFile());
    EXPECT_TRUE(mapped.UnmapViewOfFile());
    mapped.Flush(0, 0);  // no view: nothing to do

    // Write access to a read-only file is refused.
    std::string path = m_dir.file("ro.bin");
    WriteFile(path, std::string(4096, 'r'));
    CFile file(path.c_str(), CFile::modeRead);
    CMemoryMappedFile readOnly;
    EXPECT_FALSE(readOnly.Open(nullptr, file.m_hFile, PAGE_READWRITE, 0, 4096, 0, FILE_MAP_ALL_ACCESS, 0, 0));
    EXPECT_EQ(g_boxes.size(), 3u);
}
