// The account in memory: defaults and groups, comparisons and searches, classification against the
// friend and spammer lists, the automatic rescan, the caches and the rules forgetting a message, the
// message index, copies, and the string record's parser on damaged lengths.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "accounts/CGlobalProfile.h"
#include "accounts/internal/SenderMatcher.h"
#include "contacts/CAddressEntry.h"
#include "tests/accounts/MailBoxTestSupport.h"
#include "util/XString.h"

using namespace tavik::test;

namespace {

class MailBox : public AccountFixture {
protected:
    void TearDown() override {
        m_profile.UnloadMessages();
        AccountFixture::TearDown();
    }
    // Adds a message without storage, returning its position.
    CMailBoxProfile::MessagePosition Add(DWORD id, const char* sender) {
        return m_profile.AddMessage(MakeMessage(id, sender), true);
    }

    ProfileProbe m_profile;
};

TEST_F(MailBox, DefaultsAndGroupsKeepTheirArgumentOrder) {
    EXPECT_EQ(m_profile.GetActiveFolder(), "Inbox");
    EXPECT_EQ(m_profile.GetIncomingProtocol(), "POP3");
    EXPECT_EQ(m_profile.GetOutgoingProtocol(), "SMTP");
    DWORD disabled, filtering, leave, save, body, max, rescan, timeout;
    m_profile.GetAdvancedData(disabled, filtering, leave, save, body, max, rescan, timeout);
    EXPECT_EQ((std::vector<DWORD>{disabled, filtering, leave, save, body, max, rescan, timeout}),
              (std::vector<DWORD>{0, 1, 1, 1, 1, 64, 0, 90}));
    DWORD limit, sessionMax, full;
    m_profile.GetExtraData(limit, sessionMax, full);
    EXPECT_EQ((std::vector<DWORD>{limit, sessionMax, full}), (std::vector<DWORD>{0, 999, 1}));
    EXPECT_TRUE(m_profile.IsValid());
    EXPECT_FALSE(m_profile.IsDeleted());
    CStringArray folders;
    m_profile.GetFolderList(folders);
    EXPECT_EQ(Joined(folders), "Inbox,Sent,Trash");
    EXPECT_EQ(m_profile.GetStorageName().GetLength(), 20);

    m_profile.SetServerData("in", "out", "IMAP", "ESMTP", "u", "p", "ou", "op");
    CString in, out, inProto, outProto, user, pass, outUser, outPass;
    m_profile.GetServerData(in, out, inProto, outProto, user, pass, outUser, outPass);
    EXPECT_EQ(std::string(in + out + inProto + outProto + user + pass + outUser + outPass),
              "inoutIMAPESMTPupouop");
    m_profile.SetAdvancedData(1, 2, 3, 4, 5, 6, 7, 8);
    EXPECT_EQ(m_profile.GetMaxBodySize(), 6u);
    EXPECT_EQ(m_profile.GetTimeoutValue(), 8u);
    m_profile.SetExtraData(11, 12, 13);
    EXPECT_EQ(m_profile.GetProcessLimit(), 11u);
    EXPECT_EQ(m_profile.GetSessionMax(), 12u);
    m_profile.IncrementNewMsgs(3);
    m_profile.IncrementNewMsgs(2);
    EXPECT_EQ(m_profile.GetNewMsgCount(), 5u);
    m_profile.ResetNewMsgs();
    EXPECT_EQ(m_profile.GetNewMsgCount(), 0u);

    // The profile's reset also clears the lists and rules, and puts the folders back.
    m_profile.SetFriendList(Strings({"a"}));
    m_profile.SetFolderList(Strings({"Work"}));
    m_profile.GetSpamShields().emplace_back();
    m_profile.ResetValues();
    m_profile.GetFolderList(folders);
    EXPECT_EQ(Joined(folders), "Inbox,Sent,Trash");
    EXPECT_EQ(m_profile.GetShieldCount(), 0);
    CStringArray friends;
    m_profile.GetFriendList(friends);
    EXPECT_EQ(friends.GetSize(), 0);
}

TEST_F(MailBox, RandomTextsAndTheMessageFileName) {
    EXPECT_EQ(m_profile.RandomString(0, 1), "");
    EXPECT_EQ(m_profile.RandomString(-3, 2), "");
    for (int round = 0; round < 50; ++round) {
        m_clock.AdvanceTicks(37);
        CString letters = m_profile.RandomString(20, 2);
        ASSERT_EQ(letters.GetLength(), 20);
        for (char c : letters.str()) EXPECT_TRUE((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'y')) << letters;
        const CString mixed = m_profile.RandomString(12, 1);
        for (char c : mixed.str())
            EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'y'));
        const CString digits = m_profile.RandomString(12, 3);
        for (char c : digits.str()) EXPECT_TRUE(c >= '0' && c <= '8');
    }
    // The same tick gives the same text: each character reseeds from it.
    EXPECT_EQ(m_profile.RandomString(20, 2), m_profile.RandomString(20, 2));

    Name(m_profile, "Home");
    m_profile.SetSignature(4242);
    m_profile.CreateDataFile("alice");
    EXPECT_EQ(std::string(m_profile.GetDataFile()), DataDirectory() + "alice-Home-4242.tvd");
}

TEST_F(MailBox, ComparisonsAndStaticSearches) {
    CMailBoxProfile a, b, c;
    a.SetGeneralData("Work", "", "", "", "");
    b.SetGeneralData("work", "", "", "", "");
    c.SetGeneralData("Home", "", "", "", "");
    a.SetSignature(7);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a == CString("WORK"));
    EXPECT_TRUE(a == DWORD(7));
    EXPECT_TRUE(a != b);  // byte by byte
    EXPECT_TRUE(a < b);   // capitals first
    EXPECT_TRUE(b > a);
    std::list<CMailBoxProfile*> list{&c, &b, &a};
    EXPECT_EQ(*CMailBoxProfile::FindProfile(list, CString("WORK")), &b);
    EXPECT_EQ(*CMailBoxProfile::FindProfile(list, DWORD(7)), &a);
    EXPECT_EQ(CMailBoxProfile::FindProfile(list, CString("none")), list.end());
    EXPECT_EQ(CMailBoxProfile::FindProfile(list, DWORD(8)), list.end());

    CAddressEntry first;
    m_clock.AdvanceTicks(5);  // contact ids come from the tick count
    CAddressEntry second;
    ASSERT_NE(first.GetProfileID(), second.GetProfileID());
    std::list<CAddressEntry*> contacts{&first, &second};
    EXPECT_EQ(*CMailBoxProfile::FindContact(contacts, second.GetProfileID()), &second);
    EXPECT_EQ(CMailBoxProfile::FindContact(contacts, -12345), contacts.end());

    EXPECT_TRUE(a.FolderExists("inbox"));
    EXPECT_FALSE(a.FolderExists("Inbo"));
}

TEST_F(MailBox, FriendsAndSpammersAreSubstringsIgnoringCase) {
    auto friendPos = Add(1, "Anna Smith <anna@example.org>");
    auto spamPos = Add(2, "Deals <offers@SPAM.example.net>");
    auto otherPos = Add(3, "Bob <bob@elsewhere.org>");
    CMessageList* friendMsg = *friendPos;
    CMessageList* spamMsg = *spamPos;
    CMessageList* other = *otherPos;

    // Empty lists: nothing matches and no tag moves.
    friendMsg->SetSpamTag();
    EXPECT_FALSE(m_profile.IsMsgFriendly(friendPos));
    EXPECT_EQ(friendMsg->GetSpamTag(), 1u);

    m_profile.SetFriendList(Strings({"", "EXAMPLE.ORG"}));
    m_profile.SetSpamList(Strings({"", "spam.example"}));
    EXPECT_TRUE(m_profile.IsMsgFriendly(friendPos));
    EXPECT_EQ(friendMsg->GetSpamTag(), 0u);
    EXPECT_FALSE(m_profile.IsMsgSpammer(friendPos));
    EXPECT_TRUE(m_profile.IsMsgSpammer(spamPos));
    EXPECT_EQ(spamMsg->GetSpamTag(), 1u);
    EXPECT_FALSE(m_profile.IsMsgFriendly(spamPos));
    EXPECT_EQ(spamMsg->GetSpamTag(), 1u);  // no match leaves the tag alone
    EXPECT_FALSE(m_profile.IsMsgFriendly(otherPos));
    EXPECT_FALSE(m_profile.IsMsgSpammer(otherPos));
    EXPECT_EQ(other->GetSpamTag(), 0u);
    // Other header fields are not looked at: the recipient holds example.org too.
    EXPECT_FALSE(m_profile.IsMsgFriendly(otherPos));

    // A changed list is used at once.
    m_profile.SetFriendList(Strings({"bob@"}));
    EXPECT_TRUE(m_profile.IsMsgFriendly(otherPos));
    EXPECT_FALSE(m_profile.IsMsgFriendly(friendPos));
    // No message: an empty sender, and no tag to touch.
    EXPECT_FALSE(m_profile.IsMsgFriendly(m_profile.MESSAGE_NOT_FOUND()));
}

// The one-pass matcher answers as a search of each entry with XString::NCFind would.
TEST(SenderMatcher, AgreesWithSearchingEachEntry) {
    std::mt19937 random(1234);
    const std::string alphabet = "abAB.@<> xyz\x01\xe9";
    auto text = [&](int maxLength) {
        std::string s(random() % (maxLength + 1), ' ');
        for (char& c : s) c = alphabet[random() % alphabet.size()];
        return s;
    };
    for (int round = 0; round < 400; ++round) {
        CStringArray entries;
        const int count = static_cast<int>(random() % 6);
        for (int i = 0; i < count; ++i) entries.Add(CString(text(4)));
        if (round % 50 == 0) entries.Add(CString(std::string("\0ab", 3)));  // found in every text
        tavik::lib::SenderMatcher matcher(entries);
        for (int t = 0; t < 20; ++t) {
            const std::string sender = text(12);
            bool expected = false;
            for (int i = 0; i < entries.GetSize(); ++i)
                if (!entries[i].IsEmpty() && XString(CString(sender)).NCFind(XString(entries[i]), 0) > -1)
                    expected = true;
            ASSERT_EQ(matcher.Matches(sender), expected) << "round " << round << " sender '" << sender << "'";
        }
    }
}

TEST_F(MailBox, RescanMarksHeaderOnlyReceivedMessagesDeleted) {
    // A record read back from the store with a body says so.
    class Bodied : public CMessageList {
    public:
        Bodied() {
            SetData("From: b@example.org\r\n", 2, 10, MsgReceived);
            m_bHasBody = true;
        }
    };
    auto inbox = Add(1, "a@example.org");
    auto full = m_profile.AddMessage(new Bodied, true);
    auto sent = Add(3, "c@example.org");
    CMessageList* sentMsg = *sent;
    sentMsg->SetFolderLocation("SENT");
    m_profile.IncrementNewMsgs(4);

    m_profile.AutoRescan();  // AlwaysRescan is off: nothing at all
    EXPECT_EQ(m_profile.GetNewMsgCount(), 7u);
    EXPECT_FALSE((*inbox)->IsDeleted());

    m_profile.SetAdvancedData(0, 1, 1, 1, 1, 64, 1, 90);
    m_profile.AutoRescan();
    EXPECT_EQ(m_profile.GetNewMsgCount(), 0u);
    EXPECT_TRUE((*inbox)->IsDeleted());
    EXPECT_FALSE((*full)->IsDeleted());
    EXPECT_FALSE(sentMsg->IsDeleted());
    // Deleted records stay in the list but are skipped by searches, counts and the index.
    EXPECT_EQ(m_profile.GetMessageList().size(), 3u);
    EXPECT_FALSE(m_profile.HasMessage(1));
    EXPECT_NE(m_profile.FindMessage(1, true), m_profile.MESSAGE_NOT_FOUND());
    EXPECT_EQ(m_profile.GetMessageCount(), 2);
    EXPECT_EQ(std::string(m_profile.BuildMessageIndex()),
              (*full)->GetStorageName().str() + "," + sentMsg->GetStorageName().str() + ",");

    // Without keeping full messages the body does not save a message.
    m_profile.SetExtraData(0, 999, 0);
    m_profile.AutoRescan();
    EXPECT_TRUE((*full)->IsDeleted());
    EXPECT_FALSE(sentMsg->IsDeleted());
    EXPECT_EQ(m_profile.BuildMessageIndex(), sentMsg->GetStorageName() + ",");
}

TEST_F(MailBox, SearchesFollowTheListAsItChanges) {
    auto first = Add(10, "a@x");
    EXPECT_EQ(m_profile.GetLastAddedPosition(), first);
    auto again = Add(10, "b@x");  // the same id: the search still finds the first
    EXPECT_EQ(again, first);
    (*first)->SetDeleted(true);
    EXPECT_NE(m_profile.FindMessage(10, false), first);
    EXPECT_EQ(*m_profile.FindMessage(10, false), *std::next(first));
    EXPECT_EQ(m_profile.FindMessage(10, true), first);

    // Changes through the list handed out are seen by the next search.
    std::list<CMessageList*>& list = m_profile.GetMessageList();
    CMessageList* extra = MakeMessage(11, "c@x");
    list.push_front(extra);
    EXPECT_EQ(*m_profile.FindMessage(11, false), extra);
    delete list.back();
    list.pop_back();
    delete list.back();
    list.pop_back();
    EXPECT_FALSE(m_profile.HasMessage(10));
    // A record whose id changed is found under its new id.
    extra->SetData(extra->GetHeader(), 12, 1, MsgReceived);
    EXPECT_FALSE(m_profile.HasMessage(11));
    EXPECT_TRUE(m_profile.HasMessage(12));
    EXPECT_EQ(m_profile.AddMessage(nullptr, true), m_profile.MESSAGE_NOT_FOUND());

    // SetMessageList takes pointers only; UnloadMessages destroys them.
    std::list<CMessageList*> copy = m_profile.GetMessageList();
    CMailBoxProfile other;
    other.SetMessageList(copy);
    EXPECT_TRUE(other.HasMessage(12));
}

TEST_F(MailBox, CachesAndForgettingAMessage) {
    auto& responders = m_profile.GetAutoResponders();
    auto& redirectors = m_profile.GetRedirectors();
    auto& shields = m_profile.GetSpamShields();
    responders.emplace_back();
    redirectors.emplace_back();
    shields.emplace_back();
    CGlobalProfile global;
    global.GetSpamShields().emplace_back();
    for (DWORD id : {5u, 7u, 5u}) {
        responders.back().AddProcessedID(id);
        redirectors.back().AddProcessedID(id);
        shields.back().AddProcessedID(id);
        global.GetSpamShields().back().AddProcessedID(id);
    }
    m_profile.RemoveMessageID(7, nullptr);  // no global profile: nothing
    EXPECT_TRUE(shields.back().SearchProcessedID(7));
    m_profile.RemoveMessageID(7, &global);
    EXPECT_FALSE(responders.back().SearchProcessedID(7));
    EXPECT_FALSE(redirectors.back().SearchProcessedID(7));
    EXPECT_FALSE(shields.back().SearchProcessedID(7));
    EXPECT_FALSE(global.GetSpamShields().back().SearchProcessedID(7));
    EXPECT_TRUE(global.GetSpamShields().back().SearchProcessedID(5));

    m_profile.AddCachedForwardMsg(3);
    m_profile.AddCachedForwardMsg(1);
    m_profile.AddCachedForwardMsg(3);
    EXPECT_EQ(m_profile.GetCachedForwardMsgs(), (std::list<DWORD>{3, 1}));
    EXPECT_TRUE(m_profile.IsCachedForwardMsg(1));
    m_profile.RemoveCachedForwardMsg(3);
    EXPECT_EQ(m_profile.GetCachedForwardMsgs(), (std::list<DWORD>{1}));
    m_profile.ClearCachedForwardMsgs();
    EXPECT_FALSE(m_profile.HasCachedForwardMsgs());

    auto seven = Add(7, "x@y");
    auto five = Add(5, "x@y");
    auto nine = Add(9, "x@y");
    m_profile.AddCachedDeleteMsg(7, false);
    m_profile.AddCachedDeleteMsg(7, true);  // keeps false
    m_profile.RemoveCachedDeleteMsg(7, &global);
    EXPECT_TRUE(m_profile.IsCachedDeleteMsg(7));
    EXPECT_FALSE((*seven)->IsDeleted());

    m_profile.AddCachedDeleteMsg(9, true);
    m_profile.AddCachedDeleteMsg(5, true);
    m_profile.CleanupCachedDeletedMsgs(&global);
    EXPECT_TRUE((*five)->IsDeleted());
    EXPECT_TRUE((*nine)->IsDeleted());
    EXPECT_FALSE((*seven)->IsDeleted());
    EXPECT_FALSE(shields.back().SearchProcessedID(5));
    EXPECT_TRUE(m_profile.IsCachedDeleteMsg(5));  // cleanup removes no entry
    m_profile.RemoveCachedDeleteMsg(5, &global);
    EXPECT_FALSE(m_profile.IsCachedDeleteMsg(5));
    m_profile.ClearCachedDeletedMsgs();
    EXPECT_FALSE(m_profile.HasCachedDeleteMsgs());
}

TEST_F(MailBox, CopiesShareMessagesAndStoragesButNotContacts) {
    Name(m_profile, "Shared");
    m_profile.SetFriendList(Strings({"f@x"}));
    m_profile.GetRedirectors().emplace_back();
    m_profile.AddCachedForwardMsg(4);
    Add(1, "a@b");
    m_profile.GetAddressList().push_back(new CAddressEntry);
    m_profile.InitializeStorages(Accounts(), "Shared");
    {
        CMailBoxProfile copy(m_profile);
        EXPECT_EQ(copy.GetAccountName(), "Shared");
        EXPECT_EQ(copy.GetMessageList().front(), m_profile.GetMessageList().front());
        EXPECT_EQ(copy.GetContactCount(), 0);
        EXPECT_EQ(copy.GetRedirectorsCount(), 1);
        EXPECT_TRUE(copy.IsCachedForwardMsg(4));
        CStringArray friends;
        copy.GetFriendList(friends);
        EXPECT_EQ(Joined(friends), "f@x");
        EXPECT_EQ(copy.GetMessageStoragePtr()->GetStorage(), m_profile.GetMessageStoragePtr()->GetStorage());
        CMailBoxProfile assigned;
        assigned = copy;
        EXPECT_TRUE(assigned.GetMessageStoragePtr()->IsOpen());
    }
    // The copies are gone; the handles stay open for the last holder.
    EXPECT_TRUE(m_profile.GetMessageStoragePtr()->IsOpen());
}

// Lengths that overflow, run past the text, or stop short: each field either whole (or cut at the text's
// end) or left as it was; never a read past the text.
TEST_F(MailBox, StringRecordParserStopsAtTheFirstFieldThatDoesNotFit) {
    m_profile.SetGeneralData("Old", "Old real", "old@x", "", "");
    char text[] = "NewUSERpw";
    _tagSTR_MAILBOXDATA lengths{};
    lengths.dwAccountName = 3;
    lengths.dwUserName = 4;
    lengths.dwPassword = 0xFFFFFFF0u;   // runs past the end: cut there
    lengths.dwOutgoingUserName = 0x20;  // starts beyond the end: parsing stops
    m_profile.ParseMailBoxStringData(text, &lengths);
    EXPECT_EQ(m_profile.GetAccountName(), "New");
    EXPECT_EQ(m_profile.GetUserName(), "USER");
    EXPECT_EQ(m_profile.GetPassword(), "pw");
    EXPECT_EQ(m_profile.GetRealName(), "Old real");

    // A first length beyond the text takes nothing at all.
    lengths = {};
    lengths.dwAccountName = 100;
    m_profile.ParseMailBoxStringData(text, &lengths);
    EXPECT_EQ(m_profile.GetAccountName(), "New");
    m_profile.ParseMailBoxStringData(nullptr, &lengths);
    m_profile.ParseMailBoxStringData(text, nullptr);

    // Lengths that add up past 2^32 do not wrap around to the start.
    for (DWORD* w = &lengths.dwAccountName; w <= &lengths.dwDataFile; ++w) *w = 0x40000000u;
    lengths.dwAccountName = 2;
    m_profile.ParseMailBoxStringData(text, &lengths);
    EXPECT_EQ(m_profile.GetAccountName(), "Ne");
    EXPECT_EQ(m_profile.GetUserName(), "wUSERpw");
    EXPECT_EQ(m_profile.GetPassword(), "pw");
}

}  // namespace
