// The pipelined header scan against the scripted server: the same records and status lines as the
// one-message path, however the replies arrive and whatever the server offers.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <memory>
#include <thread>

#include "messages/CMessageList.h"
#include "platform/Clock.h"
#include "platform/Kernel.h"
#include "tests/support/ScriptedServer.h"
#include "tests/transport/Pop3TestSupport.h"

using namespace tavik::test;

namespace {

struct Reply {
    std::string list, top, uidl;
};

// Headers of several shapes: folded, dot-stuffed, empty, lower-case positive replies.
const std::vector<Reply> kMailbox = {
    {"+OK 1 1234\r\n", "+OK\r\nFrom: Ann <ann@example.org>\r\nSubject: One\r\n\r\n.\r\n",
     "+OK 1 uid-one\r\n"},
    {"+OK 2 99\r\n", "+OK 40 octets\r\nSubject: Two\r\n folded on\r\n..dotted: yes\r\n\r\n.\r\n",
     "+OK 2 uid-two\r\n"},
    {"+ok 3 7\r\n", "+ok\r\n.\r\n", "+ok 3 uid-three\r\n"},
    {"+OK 4 5000\r\n", "+OK\r\nFrom: bob@example.net\r\nDate: Mon, 02 Nov 2026 10:00:00 +0000\r\n\r\n.\r\n",
     "+OK 4 uid-4\r\n"},
};

enum class Capa { kNone, kPipelining, kWithout, kRefused };

// The server's side of a scan of the whole mailbox. quietMs > 0: the server checks after each command
// that the client waits for its reply (a client that must not pipeline).
void ScriptScan(ScriptedServer& s, Capa capa, size_t chunk, int quietMs = 0) {
    s.Send("+OK ready\r\n");
    if (capa != Capa::kNone) s.Expect("CAPA\r\n");
    if (capa == Capa::kPipelining)
        s.Send("+OK Capability list follows\r\nTOP\r\nUIDL\r\nPipelining\r\n.\r\n", chunk);
    if (capa == Capa::kWithout) s.Send("+OK\r\nTOP\r\nUIDL\r\nPIPELININGX\r\n.\r\n", chunk);
    if (capa == Capa::kRefused) s.Send("-ERR unknown command\r\n", chunk);
    for (size_t i = 0; i < kMailbox.size(); ++i) {
        const std::string n = std::to_string(i + 1);
        for (auto [command, reply] :
             {std::pair{"LIST " + n, kMailbox[i].list}, std::pair{"TOP " + n + " 0", kMailbox[i].top},
              std::pair{"UIDL " + n, kMailbox[i].uidl}}) {
            s.Expect(command + "\r\n");
            if (quietMs > 0) s.Quiet(quietMs);
            s.Send(reply, chunk);
        }
    }
}

struct Scanned {
    std::vector<std::string> records;  // header | id | size | subject
    std::vector<std::string> lines;
    bool result = false;
    std::string error;
};

std::string Describe(const CMessageList& r) {
    return std::string(r.GetHeader()) + "|" + std::to_string(r.GetID()) + "|" +
           std::to_string(r.GetMsgSize()) + "|" + std::string(r.GetSubject()) + "|" +
           std::string(r.GetSenderName());
}

// Connects, then scans messages first..last with GetHeaders (pipelined) or one GetHeader at a time.
// stopAfter > 0: the sink ends the scan after that many records.
Scanned Scan(ScriptedServer& s, bool pipelined, int first, int last, int stopAfter = 0) {
    s.Start();
    Scanned out;
    StatusWindow w;
    out.error = PopError([&] {
        CPopMail pop(nullptr, w.hwnd(), 5);
        ASSERT_TRUE(pop.Connect("127.0.0.1", s.Port()));
        w.lines.clear();
        if (pipelined) {
            out.result = pop.GetHeaders(first, last, [&](int n, std::unique_ptr<CMessageList> record) {
                EXPECT_EQ(n, first + static_cast<int>(out.records.size()));
                out.records.push_back(Describe(*record));
                return stopAfter == 0 || static_cast<int>(out.records.size()) < stopAfter;
            });
        } else {
            out.result = true;
            for (int n = first; n <= last && out.result; ++n) {
                CMessageList record;
                out.result = pop.GetHeader(n, record);
                if (out.result) out.records.push_back(Describe(record));
            }
        }
        out.lines = w.lines;
    });
    return out;
}

class Pop3Scan : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }
    WinsockSession winsock;
    ScopedClockPin clock{1000, 1000000000};
};

}  // namespace

TEST_F(Pop3Scan, PipelinedScanGivesTheRecordsAndStatusLinesOfTheOneMessagePath) {
    ScriptedServer reference;
    ScriptScan(reference, Capa::kNone, 0);
    const int last = static_cast<int>(kMailbox.size());
    Scanned expected = Scan(reference, false, 1, last);
    ASSERT_EQ(expected.error, "<no exception>");
    ASSERT_EQ(expected.records.size(), kMailbox.size());
    EXPECT_EQ(reference.Finish(), "");
    EXPECT_EQ(expected.lines.front(), "[01:46:40] TOP 1 0\r\n");
    EXPECT_EQ(expected.lines.back(), "[01:46:40] +OK\r\n");

    // Whole replies and replies dribbled byte by byte; a server with PIPELINING and servers without it
    // (the client must then wait for each reply before the next command).
    struct Row {
        Capa capa;
        size_t chunk;
        int quietMs;
    };
    for (const Row& row : {Row{Capa::kPipelining, 0, 0}, Row{Capa::kPipelining, 1, 0},
                           Row{Capa::kWithout, 0, 20}, Row{Capa::kRefused, 1, 20}}) {
        SCOPED_TRACE("capa " + std::to_string(static_cast<int>(row.capa)) + " chunk " +
                     std::to_string(row.chunk));
        ScriptedServer s;
        ScriptScan(s, row.capa, row.chunk, row.quietMs);
        Scanned got = Scan(s, true, 1, last);
        EXPECT_EQ(got.error, "<no exception>");
        EXPECT_TRUE(got.result);
        EXPECT_EQ(got.records, expected.records);
        EXPECT_EQ(got.lines, expected.lines);
        EXPECT_EQ(s.Finish(), "");
        EXPECT_EQ(s.Received().substr(6), reference.Received()) << "CAPA, then the one-message commands";
    }
}

// A sink that has seen enough: the replies already asked for are read, so the next command gets its own.
TEST_F(Pop3Scan, StoppingEarlyKeepsTheSessionInStep) {
    ScriptedServer s;
    ScriptScan(s, Capa::kPipelining, 0);
    s.Expect("NOOP\r\n").Send("+OK still here\r\n");
    s.Start();
    int delivered = 0;
    CPopMail pop(nullptr, nullptr, 5);
    ASSERT_TRUE(pop.Connect("127.0.0.1", s.Port()));
    EXPECT_TRUE(pop.GetHeaders(1, 4, [&](int, std::unique_ptr<CMessageList>) { return ++delivered < 2; }));
    EXPECT_EQ(delivered, 2);
    EXPECT_TRUE(pop.KeepAlive());
    EXPECT_EQ(s.Finish(), "");
}

TEST_F(Pop3Scan, FailuresInThePipelineAreTheOneMessagePathsFailures) {
    const std::string capa = "+OK\r\nPIPELINING\r\n.\r\n";
    const std::string top = "+OK\r\nSubject: s\r\n\r\n.\r\n";
    auto start = [&](ScriptedServer& s) -> ScriptedServer& {
        return s.Send("+OK\r\n")
            .Expect("CAPA\r\n")
            .Send(capa)
            .Expect("LIST 1\r\n")
            .Expect("TOP 1 0\r\n")
            .Expect("UIDL 1\r\n");
    };
    {
        SCOPED_TRACE("negative TOP status");
        ScriptedServer s;
        start(s).Send("+OK 1 10\r\n-ERR There's no message 1.\r\n+OK 1 u\r\n").Hold();
        EXPECT_EQ(Scan(s, true, 1, 1).error, "-ERR There's no message 1.");
        EXPECT_EQ(s.Finish(), "");
    }
    {
        SCOPED_TRACE("refused UIDL");
        ScriptedServer s;
        start(s).Send("+OK 1 10\r\n" + top + "-ERR unknown command\r\n").Hold();
        Scanned got = Scan(s, true, 1, 1);
        const std::string refused =
            "-ERR unknown command\r\n\r\nThis server does not support the UIDL command. "
            "TavikMail cannot work with this server\r\n";
        EXPECT_EQ(got.error, refused);
        EXPECT_EQ(s.Finish(), "");
    }
    {
        SCOPED_TRACE("negative LIST");
        ScriptedServer s;
        start(s).Send("-ERR no such message\r\n-ERR x\r\n-ERR y\r\n").Hold();
        EXPECT_EQ(Scan(s, true, 1, 1).error, "-ERR no such message\r\n");
        EXPECT_EQ(s.Finish(), "");
    }
    {
        // The connection ends before message 2's UIDL reply: message 2 takes the header's CRC, as alone.
        SCOPED_TRACE("closed before the last UIDL reply");
        ScriptedServer s;
        s.Send("+OK\r\n").Expect("CAPA\r\n").Send(capa);
        for (const char* n : {"1", "2", "3"})
            s.Expect(std::string("LIST ") + n + "\r\n")
                .Expect(std::string("TOP ") + n + " 0\r\n")
                .Expect(std::string("UIDL ") + n + "\r\n");
        s.Send("+OK 1 10\r\n" + top + "+OK 1 u\r\n+OK 2 20\r\n" + top).Close();
        Scanned got = Scan(s, true, 1, 3);
        EXPECT_EQ(got.error, "<no exception>");
        EXPECT_FALSE(got.result);
        ASSERT_EQ(got.records.size(), 2u);
        EXPECT_EQ(got.records[1], "Subject: s\r\n|" + std::to_string(Crc("Subject: s\r\n")) + "|20|s|");
        EXPECT_EQ(s.Finish(), "");
    }
}

// The commands in flight stay within the bound whatever the count asked for, and a scan waiting on a
// silent server stops when the termination event is signalled.
TEST_F(Pop3Scan, WindowIsBoundedAndASilentServerCanBeLeft) {
    ScriptedServer s;
    s.Send("+OK\r\n")
        .Expect("CAPA\r\n")
        .Send("+OK\r\nPIPELINING\r\n.\r\n")
        .Expect("LIST 1\r\n")
        .Mark("asked")
        .Hold();
    s.Start();
    HANDLE stop = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    std::string error;
    std::thread scan([&] {
        CPopMail pop(stop, nullptr, 30);
        error = PopError([&] {
            ASSERT_TRUE(pop.Connect("127.0.0.1", s.Port()));
            pop.GetHeaders(1, 100000, [](int, std::unique_ptr<CMessageList>) { return true; });
        });
    });
    ASSERT_TRUE(s.WaitMark("asked"));
    Sleep(300);  // time for a client that ignored the bound to send far more
    size_t sent = s.Received().size() - 6;
    EXPECT_LE(sent, static_cast<size_t>(CPopMail::kPipelineBytes));
    EXPECT_GE(sent, 10u * std::string("LIST 1\r\nTOP 1 0\r\nUIDL 1\r\n").size())
        << "a window of several messages";
    auto t0 = std::chrono::steady_clock::now();
    SetEvent(stop);
    scan.join();
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), 1.0);
    EXPECT_EQ(error, "Forced Termination by user");
    EXPECT_EQ(s.Finish(), "");
    CloseHandle(stop);
}
