#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/Clock.h"
#include "tests/messages/MessageProbe.h"

namespace {

// Saving depends on the dirty mark: setting what is already there, validity, deletion and the spam tag
// leave it alone; a real change sets it.
TEST(MessageFlags, DirtyOnlyWhenSomethingChanges) {
    CMessageList m;
    m.SetSeen(false);
    m.SetRead(false);
    m.SetFolderLocation("INBOX");  // same text ignoring case
    m.SetValid(false);
    m.SetDeleted(true);
    m.SetSpamTag();
    EXPECT_FALSE(m.IsDirty());
    EXPECT_EQ(m.GetFolderLocation(), "inbox");
    EXPECT_EQ(m.GetSpamTag(), 1u);

    const std::function<void(CMessageList&)> changes[] = {
        [](CMessageList& r) { r.SetSeen(true); }, [](CMessageList& r) { r.SetRead(true); },
        [](CMessageList& r) { r.SetFolderLocation("Junk"); },
        [](CMessageList& r) { r.SetDataFile("a.tvd"); }};
    for (const auto& change : changes) {
        CMessageList r;
        change(r);
        EXPECT_TRUE(r.IsDirty());
    }
}

TEST(MessageRecord, CopiesAndComparesById) {
    CMessageList a;
    a.SetData("From: a@x\r\nSubject: hi\r\n", 42, 100, MsgReceived);
    a.SetMailBox("pop.x", "me@x", "smtp.x", "Work");
    a.SetSeen(true);
    CMessageList b(a);
    EXPECT_EQ(b.GetSubject(), "hi");
    EXPECT_EQ(b.GetStorageName(), a.GetStorageName());
    EXPECT_EQ(b.GetAccountName(), "Work");
    EXPECT_TRUE(b.IsSeen() && b.IsDirty());
    EXPECT_TRUE(a == b && a == 42u);

    CMessageList c;
    c.SetData("From: c@x\r\n", 7, 1, MsgReceived);
    EXPECT_TRUE(c < a && a > c && a != c);
    c = a;
    c = c;  // self-assignment keeps everything
    EXPECT_EQ(c.GetSenderName(), "a@x");

    CMessageList high;
    high.SetData("", 0x80000000u, 1, MsgReceived);
    EXPECT_TRUE(a < high);  // unsigned comparison
}

TEST(StorageNameHash, KnownAnswers) {
    EXPECT_EQ(MessageProbe::GetHash("abc", 10), "aqjdhc32ob527oba");
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
    EXPECT_EQ(m.RandomString(4, 9).GetLength(), 4);
    EXPECT_EQ(m.RandomString(-3, 1), "");
    pin.SetTickCount(123456789);
    EXPECT_EQ(m.RandomString(20, 1), "0Sc6Z3DfACgGJmyRb5Y2");
}

TEST(RandomNames, AlphabetsHoldOverManySeeds) {
    const char* kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxy";
    ScopedClockPin pin(1);
    MessageProbe m;
    for (DWORD ticks = 1; ticks < 3000; ticks += 7) {
        pin.SetTickCount(ticks);
        std::string letters = m.RandomString(20, 2).str(), mixed = m.RandomString(20, 1).str();
        std::string digits = m.RandomString(6, 3).str();
        ASSERT_EQ(letters.size() + mixed.size() + digits.size(), 46u);
        ASSERT_EQ(letters.find_first_not_of(kLetters), std::string::npos) << letters;
        ASSERT_EQ(mixed.find_first_not_of(std::string(kLetters) + "0123456789"), std::string::npos) << mixed;
        ASSERT_EQ(digits.find_first_not_of("012345678"), std::string::npos) << digits;
    }
}

}  // namespace
