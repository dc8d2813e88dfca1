// The POP3 client against servers that are slow, silent, swamped or lying: every case ends with a clear
// result within its time limit, and the termination event ends any of them within a second.
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <functional>
#include <thread>

#include "platform/Kernel.h"
#include "tests/support/FullListener.h"
#include "tests/support/ScriptedServer.h"
#include "tests/transport/Pop3TestSupport.h"

using namespace tavik::test;

namespace {

double SecondsSince(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

TEST(Pop3Limits, GreetingIsReadToItsLineEndWithinTheTimeLimit) {
    WinsockSession winsock;
    {
        ScriptedServer s;
        s.Send("+").Delay(150).Send("OK POP3 ready\r\n").Hold();
        s.Start();
        StatusWindow w;
        CPopMail pop(nullptr, w.hwnd(), 5);
        EXPECT_TRUE(pop.Connect("127.0.0.1", s.Port())) << "a greeting in two pieces is one greeting";
        EXPECT_EQ(std::string(pop.GetGreeting()), "+OK POP3 ready\r\n");
        EXPECT_EQ(w.lines.back().substr(11), "+OK POP3 ready\r\n");
        EXPECT_EQ(s.Finish(), "");
    }
    {
        // Each byte comes well within the limit, the whole line does not.
        ScriptedServer s;
        s.Send("+OK a greeting that takes its time\r\n", 1, 200).Hold();
        s.Start();
        CPopMail pop(nullptr, nullptr, 1);
        auto t0 = std::chrono::steady_clock::now();
        std::string error = PopError([&] { pop.Connect("127.0.0.1", s.Port()); });
        EXPECT_EQ(error.rfind("Receive timeout", 0), 0u) << error;
        EXPECT_LT(SecondsSince(t0), 3.0);
        s.Stop();
    }
}

TEST(Pop3Limits, ConnectingObeysTheTimeLimit) {
    WinsockSession winsock;
    FullListener swamped;
    StatusWindow w;
    CPopMail pop(nullptr, w.hwnd(), 1);
    auto t0 = std::chrono::steady_clock::now();
    std::string error = PopError([&] { pop.Connect("127.0.0.1", swamped.Port()); });
    double took = SecondsSince(t0);
    EXPECT_EQ(error, "Attempt to connect timed out without establishing a connection\r\n");
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 3.0) << "the system's own connect would wait 21 s";
    EXPECT_EQ(w.lines.back().substr(11), error);
}

// Connecting, a silent server, a dribbling one and a long reply: the event ends each within a second,
// though the time limit is 30 s.
TEST(Pop3Limits, TerminationEventEndsEveryWaitWithinASecond) {
    WinsockSession winsock;
    FullListener swamped;
    struct Case {
        const char* what;
        std::function<void(ScriptedServer&)> script;  // null: connect to the swamped port
        std::function<void(CPopMail&)> call;
    } cases[] = {
        {"connecting", nullptr, [](CPopMail&) {}},
        {"silent greeting", [](ScriptedServer& s) { s.Mark("ready").Hold(); }, [](CPopMail&) {}},
        {"silent reply", [](ScriptedServer& s) { s.Send("+OK\r\n").Expect("STAT\r\n").Mark("ready").Hold(); },
         [](CPopMail& p) {
             int count, size;
             p.MailBoxStats(&count, &size);
         }},
        {"dribbled reply",
         [](ScriptedServer& s) {
             s.Send("+OK\r\n")
                 .Expect("RETR 1\r\n")
                 .Mark("ready")
                 .Send("+OK\r\n" + std::string(400, 'x'), 1, 50);
         },
         [](CPopMail& p) {
             CString message;
             p.Retrieve(1, message);
         }},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        ScriptedServer s;
        if (c.script) {
            c.script(s);
            s.Start();
        }
        HANDLE stop = CreateEvent(nullptr, TRUE, FALSE, nullptr);
        std::string error;
        std::thread session([&] {
            CPopMail pop(stop, nullptr, 30);
            error = PopError([&] {
                pop.Connect("127.0.0.1", c.script ? s.Port() : swamped.Port());
                c.call(pop);
            });
        });
        if (c.script)
            ASSERT_TRUE(s.WaitMark("ready"));
        else
            Sleep(200);
        Sleep(100);
        auto t0 = std::chrono::steady_clock::now();
        SetEvent(stop);
        session.join();
        EXPECT_LT(SecondsSince(t0), 1.0);
        EXPECT_EQ(error, "Forced Termination by user");
        s.Stop();
        CloseHandle(stop);
    }
}

TEST(Pop3Limits, MessageCountsThatDoNotFitAreErrors) {
    WinsockSession winsock;
    struct Case {
        const char* reply;
        std::string error;  // empty: accepted
        int count, size;
    } cases[] = {
        {"+OK 2147483648 100\r\n", "The server reported an impossible message count: +OK 2147483648 100\r\n"},
        {"+OK -1 0\r\n", "The server reported an impossible message count: +OK -1 0\r\n"},
        {"+OK 99999999999999999999999 1\r\n",
         "The server reported an impossible message count: +OK 99999999999999999999999 1\r\n"},
        {"+OK 2147483647 5000000000\r\n", "", INT_MAX, INT_MAX},
        {"+OK 3 +120\r\n", "", 3, 120},
        {"+OK\r\n", "", -7, -7},  // nothing to read: both left alone
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.reply);
        ScriptedServer s;
        s.Send("+OK\r\n").Expect("STAT\r\n").Send(c.reply).Hold();
        s.Start();
        CPopMail pop(nullptr, nullptr, 5);
        ASSERT_TRUE(pop.Connect("127.0.0.1", s.Port()));
        int count = -7, size = -7;
        std::string error = PopError([&] { EXPECT_TRUE(pop.MailBoxStats(&count, &size)); });
        if (c.error.empty()) {
            EXPECT_EQ(error, "<no exception>");
            EXPECT_EQ(count, c.count);
            EXPECT_EQ(size, c.size);
        } else {
            EXPECT_EQ(error, c.error);
        }
        EXPECT_EQ(s.Finish(), "");
    }
}
