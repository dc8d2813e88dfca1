// The mail check against a mailbox of huge headers: it keeps what its table shows, not the headers.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "host/MailCheck.h"
#include "tests/support/GeneratedPop3Server.h"

using namespace tavik::host;

namespace {

// The process's peak resident memory in kB since the last reset.
long PeakKb() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    return -1;
}

}  // namespace

TEST(MailCheckMemory, TwoThousandHalfMegabyteHeadersStayUnder200MB) {
    tavik::test::GeneratedPop3Server server(2000, 500 * 1024);
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again from here
    const long before = PeakKb();
    ASSERT_GT(before, 0);
    for (bool pipeline : {true, false}) {
        SCOPED_TRACE(pipeline ? "pipelined" : "one message at a time");
        CheckOptions o{.server = "127.0.0.1", .port = server.Port(), .user = "u", .password = "p"};
        o.scanLimit = 0;
        o.pipeline = pipeline;
        FILE* out = std::fopen("/dev/null", "w");
        CheckOutcome result = CheckMailbox(o, out);
        std::fclose(out);
        EXPECT_EQ(result.error, "");
        ASSERT_EQ(result.messages.size(), 2000u);
        EXPECT_EQ(result.messages[1999].subject, "Generated message 2000");
        EXPECT_LT(PeakKb() - before, 200 * 1024) << "kB above the start";
    }
}
