#include <gtest/gtest.h>

#include <list>
#include <string>

#include "platform/Clock.h"
#include "tests/messages/MessageProbe.h"

namespace {

TEST(MessageFlags, DirtyOnlyWhenSomethingChanges) {
    CMessageList m;
    EXPECT_TRUE(m.IsValid());
    EXPECT_EQ(m.GetFolderLocation(), "inbox");
    m.SetSeen(false);
    m.SetRead(false);
    m.SetFolderLocation("INBOX");  // same text ignoring case
    m.SetValid(false);
    m.SetDeleted(true);
    EXPECT_FALSE(m.IsDirty());
    EXPECT_FALSE(m.IsValid());
    EXPECT_TRUE(m.IsDeleted());
    EXPECT_EQ(m.GetFolderLocation(), "inbox");

    m.SetSeen(true);
    EXPECT_TRUE(m.IsSeen());
    EXPECT_TRUE(m.IsDirty());
    CMessageList r;
    r.SetRead(true);
    EXPECT_TRUE(r.IsRead() && r.IsDirty());
    CMessageList f;
    f.SetFolderLocation("Junk");
    EXPECT_EQ(f.GetFolderLocation(), "Junk");
    EXPECT_TRUE(f.IsDirty());
    CMessageList d;
    d.SetDataFile("a.tvd");
    EXPECT_EQ(d.GetDataFile(), "a.tvd");
    EXPECT_TRUE(d.IsDirty());
}

TEST(MessageFlags, SpamTagNeverMarksDirty) {
    CMessageList m;
    m.SetSpamTag();
    m.SetSpamTag();
    EXPECT_EQ(m.GetSpamTag(), 1u);
    EXPECT_FALSE(m.IsDirty());
    m.ClearSpamTag();
    EXPECT_EQ(m.GetSpamTag(), 0u);
    EXPECT_FALSE(m.IsDirty());
}

TEST(MessageRecord, CopiesAndComparesById) {
    CMessageList a;
    a.SetData("From: a@x\r\nSubject: hi\r\n", 42, 100, MsgReceived);
    a.SetMailBox("pop.x", "me@x", "smtp.x", "Work");
    a.SetSeen(true);
    a.SetSpamTag();
    CMessageList b(a);
    EXPECT_EQ(b.GetSubject(), "hi");
    EXPECT_EQ(b.GetStorageName(), a.GetStorageName());
    EXPECT_EQ(b.GetServerName(), "pop.x");
    EXPECT_EQ(b.GetEmailAddress(), "me@x");
    EXPECT_EQ(b.GetOutgoingServer(), "smtp.x");
    EXPECT_EQ(b.GetAccountName(), "Work");
    EXPECT_TRUE(b.IsSeen() && b.IsDirty());
    EXPECT_EQ(b.GetSpamTag(), 1u);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a == 42u);
    EXPECT_FALSE(a != 42u);

    CMessageList c;
    c.SetData("From: c@x\r\n", 7, 1, MsgReceived);
    EXPECT_TRUE(c < a);
    EXPECT_TRUE(a > c);
    EXPECT_TRUE(a != c);
    c = a;
    EXPECT_EQ(c.GetSenderName(), "a@x");
    c = c;  // self-assignment keeps everything
    EXPECT_EQ(c.GetSenderName(), "a@x");

    CMessageList high;
    high.SetData("", 0x80000000u, 1, MsgReceived);
    EXPECT_TRUE(a < high);  // unsigned comparison
    EXPECT_TRUE(a.IsKindOf(RUNTIME_CLASS(CMessageList)));
    EXPECT_STREQ(a.GetRuntimeClass()->m_lpszClassName, "CMessageList");
}

TEST(MessageRecord, ResetKeepsTheAccountName) {
    // Reset runs in the constructor, so the account name a fresh record has is the one it keeps (empty).
    CMessageList m;
    EXPECT_EQ(m.GetAccountName(), "");
    EXPECT_EQ(m.GetStorageName().GetLength(), 20);
    EXPECT_EQ(CMessageList::GetHeaderSize(), 56);
}

TEST(StorageNameHash, KnownAnswers) {
    EXPECT_EQ(MessageProbe::GetHash("abc", 10), "aqjdhc32ob527oba");
    EXPECT_EQ(MessageProbe::GetHash("", 10), "1unttlts5o8tir6m");
    EXPECT_EQ(MessageProbe::GetHash("hello", 10), "eet6f1uf0d05ct4q");
    EXPECT_EQ(MessageProbe::GetHash("hello", 3), "eet6v");
    // Hash bytes with a zero inside: only the bytes before it count.
    EXPECT_EQ(MessageProbe::GetHash("m13", 10), "5ohosdf7l4ev");
    EXPECT_EQ(MessageProbe::GetHash("m1", 10), "");  // the first byte is zero
    EXPECT_EQ(MessageProbe::GetHash("abc", 0), "");
    EXPECT_EQ(MessageProbe::GetHash(nullptr, 10), "");
}

TEST(StorageNameHash, RegroupingKeepsTheSignOfEachByte) {
    char out[8] = {};
    // 0xFF read as -1: its sign bits fill the high digits.
    EXPECT_EQ(MessageProbe::baseConv("\xFF", 8, 1, out, 5), 2);
    EXPECT_EQ(out[0], 31);
    EXPECT_EQ(out[1], 31);
    // 0x21 0x01 is 289, least significant digit first; the tail is flushed to whole digits.
    EXPECT_EQ(MessageProbe::baseConv("\x21\x01", 8, 2, out, 5), 4);
    EXPECT_EQ(std::string(out, 4), std::string("\x01\x09\x00\x00", 4));
    EXPECT_EQ(MessageProbe::baseConv("ab", 8, 2, out, 0), 0);
    EXPECT_EQ(MessageProbe::baseConv("ab", 24, 2, out, 24), 0);
}

TEST(RandomNames, PinnedTicksGiveKnownNames) {
    ScopedClockPin pin(1000);
    MessageProbe m;
    EXPECT_EQ(m.RandomString(20, 1), "8KeBVj3GZEReyBV9MatE");
    EXPECT_EQ(m.RandomString(20, 2), "IbpBVjDXkGReySgBMatO");
    EXPECT_EQ(m.RandomString(20, 3), "22334556678800112334");
    std::string raw = m.RandomString(4, 9).str();
    ASSERT_EQ(raw.size(), 4u);
    EXPECT_EQ(m.RandomString(0, 1), "");
    EXPECT_EQ(m.RandomString(-3, 1), "");
    pin.SetTickCount(123456789);
    EXPECT_EQ(m.RandomString(20, 1), "0Sc6Z3DfACgGJmyRb5Y2");
}

TEST(RandomNames, AlphabetsHoldOverManySeeds) {
    ScopedClockPin pin(1);
    MessageProbe m;
    for (DWORD ticks = 1; ticks < 3000; ticks += 7) {
        pin.SetTickCount(ticks);
        std::string letters = m.RandomString(20, 2).str();
        std::string mixed = m.RandomString(20, 1).str();
        std::string digits = m.RandomString(6, 3).str();
        ASSERT_EQ(letters.size(), 20u);
        ASSERT_EQ(mixed.size(), 20u);
        ASSERT_EQ(digits.size(), 6u);
        for (char c : letters) ASSERT_TRUE((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'y')) << letters;
        for (char c : mixed)
            ASSERT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'y')) << mixed;
        for (char c : digits) ASSERT_TRUE(c >= '0' && c <= '8') << digits;
    }
}

}  // namespace
