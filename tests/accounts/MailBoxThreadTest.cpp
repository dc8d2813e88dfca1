// One account shared by a user interface thread and mail-session threads: setters from two threads,
// readers that must never see a group half written, classification while the lists change, and
// registry saves running beside them. Run under ThreadSanitizer (label threads).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "tests/accounts/MailBoxTestSupport.h"

using namespace tavik::test;

namespace {

constexpr int kRounds = 300;

CString Tagged(const char* field, int writer, int round) {
    CString text;
    text.Format("%s-%d-%d", field, writer, round);
    return text;
}

class Threads : public AccountFixture {};

TEST_F(Threads, SettersFromTwoThreadsNeverLeaveAGroupHalfWritten) {
    CMailBoxProfile profile;
    Name(profile, "Shared");
    profile.SetAdvancedData(0, 0, 0, 0, 0, 0, 0, 0);
    auto* message = MakeMessage(1, "Someone <someone@example.org>");
    auto position = profile.AddMessage(message, true);
    // Held from the start, so that every classification, however the threads are scheduled, tags it.
    profile.SetSpamList(Strings({"example.org"}));

    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    auto writer = [&](int w) {
        for (int r = 0; r < kRounds; ++r) {
            profile.SetGeneralData(Tagged("name", w, r), Tagged("real", w, r), Tagged("mail", w, r),
                                   Tagged("reply", w, r), Tagged("org", w, r));
            profile.SetServerData(Tagged("in", w, r), Tagged("out", w, r), "POP3", "SMTP",
                                  Tagged("user", w, r), Tagged("pass", w, r), Tagged("ouser", w, r),
                                  Tagged("opass", w, r));
            const DWORD v = static_cast<DWORD>(w * 100000 + r);
            profile.SetAdvancedData(v, v, v, v, v, v, v, v);
            profile.SetExtraData(v, v, v);
            profile.SetFriendList(Strings(w == 0 ? std::initializer_list<const char*>{"example.org", "a"}
                                                 : std::initializer_list<const char*>{"nobody.invalid"}));
            profile.SetSpamList(Strings({"example.org"}));
            profile.SetFolderList(Strings({"Inbox", Tagged("folder", w, r)}));
            profile.SetAccountDisabled(v);
            profile.SetCollapsed(v);
            profile.IncrementNewMsgs(1);
        }
    };
    auto reader = [&] {
        do {
            CString name, real, mail, reply, org;
            profile.GetGeneralData(name, real, mail, reply, org);
            if (name.Left(5) == "name-" && (name.Mid(4) != real.Mid(4) || name.Mid(4) != org.Mid(3))) ++torn;
            DWORD a[8];
            profile.GetAdvancedData(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7]);
            // The first is also set on its own (SetAccountDisabled), the other seven only together.
            for (int k = 2; k < 8; ++k)
                if (a[k] != a[1]) ++torn;
            CStringArray folders;
            profile.GetFolderList(folders);
            if (folders.GetSize() != 2 && folders.GetSize() != 3) ++torn;
            profile.IsMsgFriendly(position);
            profile.IsMsgSpammer(position);
            profile.BuildMailBoxStringData();
        } while (!stop);
    };
    auto saver = [&] {
        while (!stop) profile.SaveRegistryData("Software\\Brannick\\Tavik Mail\\Accounts");
    };
    std::thread r(reader), s(saver);
    std::thread w0(writer, 0), w1(writer, 1);
    w0.join();
    w1.join();
    stop = true;
    r.join();
    s.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(profile.GetNewMsgCount(), 2u * kRounds + 1);
    EXPECT_EQ(message->GetSpamTag(), 1u);  // the spammer list always holds example.org
    profile.UnloadMessages();
}

}  // namespace
