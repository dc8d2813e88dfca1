// Damaged files: a clear result, never a crash, a hang or an allocation beyond the file.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>

#include "platform/compound/internal/Format.h"
#include "tests/platform/compound/CompoundTestSupport.h"
#include "tests/support/TempDir.h"

namespace tavik::test {
namespace {

using namespace tavik::platform::cfb;

// A small file of our own: root { Sub { gamma(200) }, beta(5000), alpha(100) }, ids in that order.
class CompoundCorrupt : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        TempDir dir;
        std::string file = dir.file("good.ole");
        {
            Com<IStorage> root, sub;
            ASSERT_EQ(StgCreateDocfile(file.c_str(), kRW | STGM_CREATE, 0, root.out()), S_OK);
            ASSERT_EQ(PutStream(root.get(), "alpha", Pattern(100, 1)), S_OK);
            ASSERT_EQ(PutStream(root.get(), "beta", Pattern(5000, 2)), S_OK);
            ASSERT_EQ(root->CreateStorage("Sub", kRW, 0, 0, sub.out()), S_OK);
            ASSERT_EQ(PutStream(sub.get(), "gamma", Pattern(200, 3)), S_OK);
        }
        std::ifstream f(file, std::ios::binary);
        s_good.assign(std::istreambuf_iterator<char>(f), {});
    }

    void SetUp() override { m_bytes = s_good; }
    unsigned char* Entry(std::uint32_t id) { return &m_bytes[512 * (id / 4 + 1) + 128 * (id % 4)]; }
    std::uint32_t EntryId(const char* name) {
        for (std::uint32_t id = 0; id < 8; ++id) {
            std::u16string n;
            for (int i = 0; i < Get16(Entry(id) + 0x40) / 2 - 1; ++i) n.push_back(Get16(Entry(id) + 2 * i));
            if (n == std::u16string(name, name + std::strlen(name))) return id;
        }
        ADD_FAILURE() << name;
        return 0;
    }
    std::uint32_t& FatOf(std::uint32_t sector) {
        std::uint32_t fatSector = Get32(&m_bytes[0x4C]);
        return *reinterpret_cast<std::uint32_t*>(&m_bytes[512 * (fatSector + 1) + 4 * sector]);
    }
    std::uint32_t& MiniFatOf(std::uint32_t sector) {
        return *reinterpret_cast<std::uint32_t*>(&m_bytes[512 * (Get32(&m_bytes[0x3C]) + 1) + 4 * sector]);
    }
    HRESULT Open(Com<IStorage>& root) {
        return StgOpenStorageOnMemory(m_bytes.data(), m_bytes.size(), root.out());
    }
    HRESULT ReadResult(IStorage* stg, const char* name) {
        HRESULT hr;
        GetStream(stg, name, &hr);
        return hr;
    }

    static std::vector<unsigned char> s_good;
    std::vector<unsigned char> m_bytes;
};
std::vector<unsigned char> CompoundCorrupt::s_good;

TEST_F(CompoundCorrupt, HeaderDamage) {
    Com<IStorage> root;
    ASSERT_EQ(Open(root), S_OK);
    EXPECT_EQ(GetStream(root.get(), "beta"), Pattern(5000, 2));
    const struct {
        void (*damage)(std::vector<unsigned char>&);
        HRESULT expected;
    } cases[] = {
        {[](auto& b) { b[3] ^= 1; }, STG_E_FILEALREADYEXISTS},
        {[](auto& b) { std::memcpy(b.data(), kBetaSignature, 8); }, STG_E_OLDFORMAT},
        {[](auto& b) { b[0x1E] = 10; }, STG_E_FILEALREADYEXISTS},  // sector shift
        {[](auto& b) { b[0x20] = 7; }, STG_E_FILEALREADYEXISTS},   // mini sector shift
        {[](auto& b) { b.resize(300); }, STG_E_FILEALREADYEXISTS},
        {[](auto& b) { Put32(&b[0x2C], 0x7FFFFFFF); },
         STG_E_DOCFILECORRUPT},                                          // FAT count far beyond the file
        {[](auto& b) { Put32(&b[0x4C], 5000); }, STG_E_DOCFILECORRUPT},  // FAT sector past the end
    };
    for (const auto& c : cases) {
        m_bytes = s_good;
        c.damage(m_bytes);
        EXPECT_EQ(Open(root), c.expected) << &c - cases;
        EXPECT_EQ(root.get(), nullptr);
    }
}

TEST_F(CompoundCorrupt, LoopsAndBadChainsFailOnlyTheirStream) {
    std::uint32_t beta = Get32(Entry(EntryId("beta")) + 0x74);
    FatOf(beta + 3) = beta + 1;  // a loop inside the first ten sectors
    Com<IStorage> root;
    ASSERT_EQ(Open(root), S_OK);
    EXPECT_EQ(ReadResult(root.get(), "beta"), STG_E_DOCFILECORRUPT);
    EXPECT_EQ(GetStream(root.get(), "alpha"), Pattern(100, 1));

    m_bytes = s_good;
    std::uint32_t gamma = Get32(Entry(EntryId("gamma")) + 0x74);
    MiniFatOf(gamma + 1) = gamma;
    ASSERT_EQ(Open(root), S_OK);
    Com<IStorage> sub = OpenPath(root.get(), "Sub", kRO);
    ASSERT_TRUE(sub);
    EXPECT_EQ(ReadResult(sub.get(), "gamma"), STG_E_DOCFILECORRUPT);
    EXPECT_EQ(GetStream(root.get(), "alpha"), Pattern(100, 1));

    for (std::uint32_t start : {1000u, ENDOFCHAIN, FREESECT}) {
        m_bytes = s_good;
        Put32(Entry(EntryId("beta")) + 0x74, start);
        sub.reset();
        ASSERT_EQ(Open(root), S_OK);
        EXPECT_EQ(ReadResult(root.get(), "beta"), STG_E_DOCFILECORRUPT) << start;
    }
    // Sizes the chain cannot hold, up to the largest a version 4 file can declare.
    for (std::uint64_t size : {9000ull, 0xFFFFFFFFull}) {
        m_bytes = s_good;
        Put32(Entry(EntryId("beta")) + 0x78, static_cast<std::uint32_t>(size));
        ASSERT_EQ(Open(root), S_OK);
        EXPECT_EQ(ReadResult(root.get(), "beta"), STG_E_DOCFILECORRUPT) << size;
        STATSTG st;
        Com<IStream> s;
        ASSERT_EQ(root->OpenStream("beta", nullptr, kRO, 0, s.out()), S_OK);
        ASSERT_EQ(s->Stat(&st, STATFLAG_NONAME), S_OK);
        EXPECT_EQ(st.cbSize.QuadPart, size);
    }
    m_bytes = s_good;
    Put32(Entry(EntryId("alpha")) + 0x74, 500);  // past the mini stream
    ASSERT_EQ(Open(root), S_OK);
    EXPECT_EQ(ReadResult(root.get(), "alpha"), STG_E_DOCFILECORRUPT);
    // Two streams sharing sectors: the second one read is refused.
    m_bytes = s_good;
    Put32(Entry(EntryId("alpha")) + 0x74, gamma);
    ASSERT_EQ(Open(root), S_OK);
    sub = OpenPath(root.get(), "Sub", kRO);
    EXPECT_EQ(ReadResult(sub.get(), "gamma"), S_OK);
    EXPECT_EQ(ReadResult(root.get(), "alpha"), STG_E_DOCFILECORRUPT);
}

// A transacted root reads its tree from the file again when it reverts. Streams read before read the
// same again, and damage found before is found again: neither trips over the checks of the first read.
TEST_F(CompoundCorrupt, RevertedRootKeepsItsVerdictsOnChains) {
    std::uint32_t beta = Get32(Entry(EntryId("beta")) + 0x74);
    FatOf(beta + 3) = beta + 1;
    std::uint32_t gamma = Get32(Entry(EntryId("gamma")) + 0x74);
    TempDir dir;
    const std::string path = dir.file("damaged.ole");
    WriteFile(path, std::string(m_bytes.begin(), m_bytes.end()));
    Com<IStorage> root;
    ASSERT_EQ(StgOpenStorage(path.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, root.out()), S_OK);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(GetStream(root.get(), "alpha"), Pattern(100, 1)) << round;
        EXPECT_EQ(ReadResult(root.get(), "beta"), STG_E_DOCFILECORRUPT) << round;
        EXPECT_EQ(GetStream(OpenPath(root.get(), "Sub", kRO).get(), "gamma"), Pattern(200, 3)) << round;
        // A change to revert, and a handle the revert must cut off.
        ASSERT_EQ(PutStream(root.get(), "delta", {1}), S_OK);
        Com<IStream> open;
        ASSERT_EQ(root->OpenStream("alpha", nullptr, kRO, 0, open.out()), S_OK);
        ASSERT_EQ(root->Revert(), S_OK);
        ULONG n = 0;
        char byte;
        EXPECT_EQ(open->Read(&byte, 1, &n), STG_E_REVERTED);
        EXPECT_EQ(ReadResult(root.get(), "delta"), STG_E_FILENOTFOUND);
    }
    root.reset();

    // Sectors shared by two streams are still refused to the second one after a revert.
    m_bytes = s_good;
    Put32(Entry(EntryId("alpha")) + 0x74, gamma);
    WriteFile(path, std::string(m_bytes.begin(), m_bytes.end()));
    ASSERT_EQ(StgOpenStorage(path.c_str(), nullptr, kRW | STGM_TRANSACTED, nullptr, 0, root.out()), S_OK);
    EXPECT_EQ(ReadResult(OpenPath(root.get(), "Sub", kRO).get(), "gamma"), S_OK);
    ASSERT_EQ(PutStream(root.get(), "delta", {1}), S_OK);
    ASSERT_EQ(root->Revert(), S_OK);
    EXPECT_EQ(ReadResult(root.get(), "alpha"), STG_E_DOCFILECORRUPT);
    EXPECT_EQ(ReadResult(OpenPath(root.get(), "Sub", kRO).get(), "gamma"), S_OK);
}

TEST_F(CompoundCorrupt, DirectoryCyclesAndBadIds) {
    Com<IStorage> root;
    std::uint32_t sub = EntryId("Sub");
    Put32(Entry(sub) + 0x4C, sub);  // its own child
    EXPECT_EQ(Open(root), STG_E_DOCFILECORRUPT);
    m_bytes = s_good;
    Put32(Entry(EntryId("gamma")) + 0x48, 0);  // sibling pointing at the root
    EXPECT_EQ(Open(root), STG_E_DOCFILECORRUPT);
    m_bytes = s_good;
    Put32(Entry(sub) + 0x4C, 50);
    EXPECT_EQ(Open(root), STG_E_DOCFILECORRUPT);
    m_bytes = s_good;
    Put32(&m_bytes[0x30], 40);  // directory past the end
    EXPECT_EQ(Open(root), STG_E_DOCFILECORRUPT);
    m_bytes = s_good;
    Entry(0)[0x42] = kTypeStorage;  // no root entry at all
    EXPECT_EQ(Open(root), STG_E_DOCFILECORRUPT);
}

TEST_F(CompoundCorrupt, WhatRealWritersGetWrongIsAccepted) {
    std::uint32_t beta = EntryId("beta"), sub = EntryId("Sub");
    Put32(Entry(beta) + 0x78, 4500);                               // chain longer than the size
    Put32(Entry(sub) + 0x74, 0xDEADBEEF);                          // storage start garbage
    Put32(Entry(sub) + 0x78, 77);                                  // storage size garbage
    Put32(Entry(EntryId("alpha")) + 0x7C, 1);                      // high size half in a version 3 file
    for (std::uint32_t id = 0; id < 5; ++id) Entry(id)[0x43] = 0;  // every node red
    Put16(Entry(0), 'X');                                          // root not named "Root Entry"
    Put32(&m_bytes[0x4C + 4 * 50], 12345);                         // header list garbage past the FAT count
    std::memset(Entry(5), 0, 128);                                 // free entry with zero links
    Com<IStorage> root;
    ASSERT_EQ(Open(root), S_OK);
    auto b = Pattern(5000, 2);
    b.resize(4500);
    EXPECT_EQ(GetStream(root.get(), "beta"), b);
    EXPECT_EQ(GetStream(root.get(), "alpha"), Pattern(100, 1));
    Com<IStorage> s = OpenPath(root.get(), "Sub", kRO);
    ASSERT_TRUE(s);
    EXPECT_EQ(GetStream(s.get(), "gamma"), Pattern(200, 3));
    // A duplicate name differing in case: the open works and lookups give one of them every time.
    m_bytes = s_good;
    for (int i = 0; i < 4; ++i) Put16(Entry(beta) + 2 * i, "BETA"[i]);
    ASSERT_EQ(Open(root), S_OK);
    EXPECT_EQ(GetStream(root.get(), "beta"), Pattern(5000, 2));
}

TEST_F(CompoundCorrupt, TruncationAndRandomDamageNeverCrash) {
    auto exercise = [](const std::vector<unsigned char>& bytes) {
        Com<IStorage> root;
        if (FAILED(StgOpenStorageOnMemory(bytes.data(), bytes.size(), root.out()))) return;
        ListTree(root.get());
    };
    for (std::size_t n = 0; n < s_good.size(); n += 61) {
        std::vector<unsigned char> cut(s_good.begin(), s_good.begin() + static_cast<long>(n));
        exercise(cut);
    }
    std::mt19937 rng(1234);
    for (int round = 0; round < 3000; ++round) {
        std::vector<unsigned char> bytes = s_good;
        int flips = 1 + static_cast<int>(rng() % 8);
        for (int k = 0; k < flips; ++k) {
            // Mostly the header and the directory, where a byte matters most.
            std::size_t at = rng() % 2 ? rng() % 2048 : rng() % bytes.size();
            bytes[at] = static_cast<unsigned char>(rng());
        }
        exercise(bytes);
    }
}

}  // namespace
}  // namespace tavik::test
