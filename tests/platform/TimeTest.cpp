// CTime and CTimeSpan in fixed time zones, the pinnable clocks, and the Windows rand sequence.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "platform/CRuntime.h"
#include "platform/CTime.h"
#include "platform/Clock.h"
#include "platform/Kernel.h"

namespace {

class ZoneTest : public ::testing::Test {
protected:
    void useZone(const char* tz) {
        setenv("TZ", tz, 1);
        tzset();
    }
    void SetUp() override {
        const char* old = getenv("TZ");
        m_saved = old ? old : "";
        m_had = old != nullptr;
    }
    void TearDown() override {
        if (m_had)
            setenv("TZ", m_saved.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    std::string m_saved;
    bool m_had = false;
};

}  // namespace

TEST_F(ZoneTest, LocalFieldsAndDaylightSaving) {
    useZone("EST5EDT,M3.2.0,M11.1.0");
    CTime summer(2024, 7, 1, 12, 0, 0);  // EDT, UTC-4
    EXPECT_EQ(summer.GetTime(), 1719849600);
    EXPECT_EQ(summer.FormatGmt("%Y-%m-%d %H:%M:%S"), "2024-07-01 16:00:00");
    CTime winter(2024, 1, 15, 12, 0, 0);  // EST, UTC-5
    EXPECT_EQ(winter.FormatGmt("%H"), "17");
    EXPECT_EQ(summer.GetDayOfWeek(), 2);  // a Monday
    EXPECT_EQ(summer.Format("%a %d %b %Y %H:%M"), "Mon 01 Jul 2024 12:00");
}

TEST_F(ZoneTest, OutOfRangeFieldsCarryOverAsMktime) {
    useZone("UTC0");
    EXPECT_EQ(CTime(2001, 1, 32, 0, 0, 0), CTime(2001, 2, 1, 0, 0, 0));
    EXPECT_EQ(CTime(2001, 3, 0, 0, 0, 0), CTime(2001, 2, 28, 0, 0, 0));
    EXPECT_EQ(CTime(2000, 12, 31, 24, 0, 60), CTime(2001, 1, 1, 0, 1, 0));
    CTime sunday(2001, 9, 9, 1, 46, 40);
    EXPECT_EQ(sunday.GetTime(), 1000000000);
    EXPECT_EQ(sunday.GetDayOfWeek(), 1);
    EXPECT_EQ(sunday.Format(""), "");
}

TEST_F(ZoneTest, SpansAndArithmetic) {
    useZone("UTC0");
    CTimeSpan span(1, 2, 3, 4);
    EXPECT_EQ(span.GetTotalSeconds(), 93784);
    EXPECT_EQ(span.GetTotalMinutes(), 1563);
    EXPECT_EQ(span.Format("%D days %H:%M:%S %% %x"), "1 days 02:03:04 % %x");

    CTime t(2024, 2, 28, 23, 0, 0);
    CTime later = t + CTimeSpan(0, 2, 0, 0);
    EXPECT_EQ(later.GetDay(), 29);  // leap year
    EXPECT_EQ((later - t).GetTotalSeconds(), 7200);
    later -= CTimeSpan(0, 2, 0, 0);
    EXPECT_EQ(later, t);
}

TEST(ClockTest, PinsAndRestoresTicksAndTime) {
    DWORD realBefore = GetTickCount();
    {
        ScopedClockPin pin(0xFFFFFFF0u, 1000000000);
        EXPECT_EQ(GetTickCount(), 0xFFFFFFF0u);
        pin.AdvanceTicks(0x20);  // wraps as the real count does
        EXPECT_EQ(GetTickCount(), 0x10u);
        EXPECT_EQ(CTime::GetCurrentTime().GetTime(), 1000000000);
        pin.AdvanceTime(60);
        EXPECT_EQ(CTime::GetCurrentTime().GetTime(), 1000000060);
        {
            ScopedClockPin inner(5, 7);
            EXPECT_EQ(GetTickCount(), 5u);
        }
        EXPECT_EQ(GetTickCount(), 0x10u);  // the outer pin is back
        // Waits use the real clock, so a pinned count cannot stall a time limit.
        HANDLE e = CreateEvent(nullptr, TRUE, FALSE, nullptr);
        EXPECT_EQ(WaitForSingleObject(e, 20), WAIT_TIMEOUT);
        CloseHandle(e);
    }
    DWORD realAfter = GetTickCount();
    EXPECT_GE(realAfter - realBefore, 20u);
    EXPECT_LT(realAfter - realBefore, 60000u);
    EXPECT_GT(CTime::GetCurrentTime().GetTime(), 1700000000);
}

TEST(RandTest, FollowsTheWindowsSequencePerThread) {
    srand(1);
    EXPECT_EQ(rand(), 41);
    EXPECT_EQ(rand(), 18467);
    EXPECT_EQ(rand(), 6334);
    srand(12345);
    int a = rand();
    tavik::platform::WinSrand(12345);
    EXPECT_EQ(tavik::platform::WinRand(), a);
    // Each thread starts at seed 1, whatever other threads did.
    int first = -1;
    std::thread([&] { first = rand(); }).join();
    EXPECT_EQ(first, 41);
}
