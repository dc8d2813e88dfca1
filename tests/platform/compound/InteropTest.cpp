// Files we write must satisfy the other readers on Debian; files they write must read back here.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

std::string Olelist(const std::string& file) {
    return "/usr/bin/python3 " + Quote(SourceDir() + "/olelist.py") + " " + Quote(file);
}
ToolResult GsfWrite(const std::string& file, int sectorSize) {
    return RunTool("/usr/bin/python3 " + Quote(SourceDir() + "/gsfwrite.py") + " " + Quote(file) + " " +
                   std::to_string(sectorSize));
}

// olefile in strict mode, gsf and libolecf all accept the file and olefile sees our tree exactly.
void ExpectReadersAgree(const std::string& file) {
    ToolResult ole = RunTool(Olelist(file));
    ASSERT_EQ(ole.status, 0) << ole.err;
    EXPECT_EQ(Lines(ole.out), ListFile(file));
    ToolResult gsf = RunTool("gsf list " + Quote(file));
    EXPECT_EQ(gsf.status, 0);
    EXPECT_EQ(gsf.err, "") << "gsf complained";
    ToolResult olecf = RunTool("olecfinfo " + Quote(file));
    EXPECT_EQ(olecf.status, 0) << olecf.out << olecf.err;
}

std::vector<unsigned char> FileBytes(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

TEST(CompoundInterop, EmptyFileIsTheMinimalLayout) {
    TempDir dir;
    std::string file = dir.file("empty.ole");
    {
        Com<IStorage> root;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
    }
    EXPECT_EQ(std::filesystem::file_size(file), 1536u);
    EXPECT_EQ(std::filesystem::status(file).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    ExpectReadersAgree(file);
}

TEST(CompoundInterop, StreamsAroundEveryBoundaryAndNestedStorages) {
    TempDir dir;
    std::string file = dir.file("sizes.ole");
    {
        Com<IStorage> root;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
        unsigned seed = 1;
        for (std::size_t n : {0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097, 3 << 20})
            ASSERT_EQ(PutStream(root.get(), ("s" + std::to_string(n)).c_str(), Pattern(n, seed++)), S_OK);
        ASSERT_EQ(PutStream(root.get(), "\003Private", Pattern(200, 99)), S_OK);
        // Ten levels deep, each level with a stream, the bottom one large.
        Com<IStorage> at;
        IStorage* parent = root.get();
        for (int depth = 0; depth < 10; ++depth) {
            Com<IStorage> next;
            ASSERT_EQ(parent->CreateStorage(("level" + std::to_string(depth)).c_str(), kRW, 0, 0, next.out()),
                      S_OK);
            ASSERT_EQ(PutStream(next.get(), "data", Pattern(depth == 9 ? 100000 : 10 * depth, depth)), S_OK);
            at = std::move(next);
            parent = at.get();
        }
        at.reset();
        ASSERT_EQ(root->Commit(STGC_DEFAULT), S_OK);
    }
    ExpectReadersAgree(file);
    std::string deep = "level0/level1/level2/level3/level4/level5/level6/level7/level8/level9/data";
    ToolResult cat = RunTool("gsf cat " + Quote(file) + " " + deep);
    auto expected = Pattern(100000, 9);
    EXPECT_EQ(cat.out, std::string(expected.begin(), expected.end()));
}

TEST(CompoundInterop, HundredsOfSiblingsFormAValidBalancedTree) {
    TempDir dir;
    std::string file = dir.file("wide.ole");
    {
        Com<IStorage> root;
        ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
        for (int i = 0; i < 1500; ++i)
            ASSERT_EQ(
                PutStream(root.get(), ("n" + std::to_string(i * 7919 % 1500)).c_str(), Pattern(i % 70, i)),
                S_OK);
    }
    // olefile walks siblings recursively and fails on a degenerate tree this wide.
    ExpectReadersAgree(file);
}

TEST(CompoundInterop, FilesPastTheHeaderFatListUseDifatSectors) {
    TempDir dir;
    // 109 FAT sectors cover 13,952 sectors; these sizes land on both sides of that edge.
    for (std::size_t size : {std::size_t{8000000}, std::size_t{13840} * 512, std::size_t{13841} * 512}) {
        std::string file = dir.file("big" + std::to_string(size) + ".ole");
        {
            Com<IStorage> root;
            ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
            ASSERT_EQ(PutStream(root.get(), "big", Pattern(size, 5)), S_OK);
            ASSERT_EQ(PutStream(root.get(), "small", Pattern(10, 6)), S_OK);
        }
        ExpectReadersAgree(file);
        auto bytes = FileBytes(file);
        ASSERT_GE(bytes.size(), 512u);
        std::uint32_t fatCount = bytes[0x2C] | bytes[0x2D] << 8 | bytes[0x2E] << 16;
        std::uint32_t difatCount = bytes[0x48] | bytes[0x49] << 8;
        EXPECT_EQ(difatCount, fatCount > 109 ? (fatCount - 109 + 126) / 127 : 0u) << size;
        EXPECT_EQ(bytes.size() % 512, 0u);
    }
}

TEST(CompoundInterop, ReadsFilesFromOtherWriters) {
    TempDir dir;
    // libgsf, version 3 and version 4.
    for (int sector : {512, 4096}) {
        std::string file = dir.file("gsf" + std::to_string(sector) + ".ole");
        ToolResult w = GsfWrite(file, sector);
        ASSERT_EQ(w.status, 0) << w.err;
        ToolResult ole = RunTool(Olelist(file));
        ASSERT_EQ(ole.status, 0) << ole.err;
        EXPECT_EQ(ListFile(file), Lines(ole.out)) << sector;
    }
    // gsf createole from a directory (stream times set, storages as a linked list).
    std::filesystem::create_directories(dir.path() / "src" / "Sub");
    for (auto [name, size] : {std::pair{"src/a", 10}, {"src/b4096", 4096}, {"src/Sub/c", 70000}}) {
        auto data = Pattern(size, size);
        std::ofstream(dir.file(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), size);
    }
    std::string created = dir.file("created.ole");
    ASSERT_EQ(RunTool("cd " + Quote(dir.file("src")) + " && gsf createole " + Quote(created) + " a b4096 Sub")
                  .status,
              0);
    EXPECT_EQ(ListFile(created), Lines(RunTool(Olelist(created)).out));
    // msibuild: MSI-encoded names, a summary stream and the installer class id.
    std::string msi = dir.file("pkg.msi");
    auto payload = Pattern(9000, 3);
    std::ofstream(dir.file("payload"), std::ios::binary)
        .write(reinterpret_cast<const char*>(payload.data()), 9000);
    ASSERT_EQ(RunTool("msibuild " + Quote(msi) + " -a payload " + Quote(dir.file("payload"))).status, 0);
    auto listed = ListFile(msi);
    ASSERT_FALSE(listed.empty());
    ToolResult ole = RunTool(Olelist(msi));
    // olefile prints the non-ASCII MSI names escaped; compare counts and the summary stream.
    EXPECT_EQ(Lines(ole.out).size(), listed.size());
    Com<IStorage> root;
    ASSERT_EQ(StgOpenStorage(msi.c_str(), nullptr, kRO, nullptr, 0, root.out()), S_OK);
    EXPECT_FALSE(GetStream(root.get(), "\005SummaryInformation").empty());
    STATSTG st;
    ASSERT_EQ(root->Stat(&st, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(st.clsid.Data1, 0x000C1084u);
}

TEST(CompoundInterop, ModifyingAForeignFileKeepsEverythingElse) {
    TempDir dir;
    std::string file = dir.file("foreign.ole");
    ASSERT_EQ(GsfWrite(file, 4096).status, 0);
    auto before = ListFile(file);
    {
        Com<IStorage> root;
        ASSERT_EQ(StgOpenStorage(file.c_str(), nullptr, kRW, nullptr, 0, root.out()), S_OK);
        ASSERT_EQ(PutStream(root.get(), "small", Pattern(5, 5)), S_OK);
    }
    auto after = ListFile(file);
    ExpectReadersAgree(file);
    ASSERT_EQ(before.size(), after.size());
    for (std::size_t i = 0; i < before.size(); ++i)
        if (before[i].rfind("f small ", 0) != 0) {
            EXPECT_EQ(before[i], after[i]);
        }
    // Written back as version 3.
    EXPECT_EQ(FileBytes(file)[0x1A], 3);
}

}  // namespace
}  // namespace tavik::test
