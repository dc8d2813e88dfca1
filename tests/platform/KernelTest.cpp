// Kernel events, waits, threads and critical sections across real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/AfxMt.h"
#include "platform/Kernel.h"

namespace {
DWORD elapsedSince(std::chrono::steady_clock::time_point start) {
    return DWORD(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count());
}
}  // namespace

TEST(KernelEventTest, ManualAndAutoResetSemantics) {
    HANDLE manual = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    HANDLE autoEvent = CreateEvent(nullptr, FALSE, TRUE, nullptr);
    ASSERT_NE(manual, nullptr);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);
    SetEvent(manual);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_OBJECT_0);  // stays signalled
    ResetEvent(manual);
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_TIMEOUT);

    EXPECT_EQ(WaitForSingleObject(autoEvent, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(autoEvent, 0), WAIT_TIMEOUT);  // consumed by the first wait

    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitForSingleObject(manual, 50), WAIT_TIMEOUT);
    EXPECT_GE(elapsedSince(start), 45u);

    HANDLE both[] = {manual, autoEvent};
    SetEvent(autoEvent);
    EXPECT_EQ(WaitForMultipleObjects(2, both, FALSE, 0), WAIT_OBJECT_0 + 1);
    SetEvent(autoEvent);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(autoEvent, 0), WAIT_OBJECT_0);  // a failed wait-all consumed nothing
    SetEvent(manual);
    SetEvent(autoEvent);
    EXPECT_EQ(WaitForMultipleObjects(2, both, TRUE, 0), WAIT_OBJECT_0);

    EXPECT_TRUE(CloseHandle(manual));
    EXPECT_TRUE(CloseHandle(autoEvent));
    SetLastError(0);
    EXPECT_FALSE(CloseHandle(manual));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_HANDLE));
    EXPECT_EQ(WaitForSingleObject(manual, 0), WAIT_FAILED);
    EXPECT_FALSE(SetEvent(manual));
}

TEST(KernelEventTest, AutoResetReleasesOneWaiterPerSignal) {
    HANDLE e = CreateEvent(nullptr, FALSE, FALSE, nullptr);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            if (WaitForSingleObject(e, 5000) == WAIT_OBJECT_0) ++released;
        });
    for (int i = 1; i <= 3; ++i) {
        SetEvent(e);
        auto start = std::chrono::steady_clock::now();
        while (released.load() < i && elapsedSince(start) < 5000) std::this_thread::yield();
        EXPECT_EQ(released.load(), i);
    }
    for (auto& t : waiters) t.join();
    CloseHandle(e);
}

TEST(KernelEventTest, NamedEventsAreShared) {
    HANDLE a = CreateEvent(nullptr, TRUE, FALSE, "tavik-test-event");
    HANDLE b = CreateEvent(nullptr, TRUE, TRUE, "tavik-test-event");
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ALREADY_EXISTS));
    EXPECT_NE(a, b);
    EXPECT_EQ(WaitForSingleObject(a, 0), WAIT_TIMEOUT);  // the second create did not change the state
    SetEvent(b);
    EXPECT_EQ(WaitForSingleObject(a, 0), WAIT_OBJECT_0);
    CloseHandle(a);
    CloseHandle(b);
    HANDLE c = CreateEvent(nullptr, TRUE, FALSE, "tavik-test-event");
    EXPECT_EQ(WaitForSingleObject(c, 0), WAIT_TIMEOUT);  // a fresh event once all handles were closed
    CloseHandle(c);
}

TEST(KernelThreadTest, SuspendedThreadRunsOnResumeAndSignalsAtExitWithTheCode) {
    static std::atomic<int> ran{0};
    ran = 0;
    auto routine = [](LPVOID) -> DWORD {
        ran = 1;
        return GetCurrentThreadId();
    };
    DWORD id = 0;
    HANDLE t = CreateThread(nullptr, 0, routine, nullptr, CREATE_SUSPENDED, &id);
    ASSERT_NE(t, nullptr);
    EXPECT_NE(id, GetCurrentThreadId());
    DWORD code = 0;
    ASSERT_TRUE(GetExitCodeThread(t, &code));
    EXPECT_EQ(code, STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(t, 30), WAIT_TIMEOUT);
    EXPECT_EQ(ran.load(), 0);
    EXPECT_EQ(ResumeThread(t), 1u);
    ASSERT_EQ(WaitForSingleObject(t, 5000), WAIT_OBJECT_0);
    GetExitCodeThread(t, &code);
    EXPECT_EQ(code, id);  // the id handed out is the one the thread sees
    CloseHandle(t);
}

TEST(CriticalSectionTest, ReentrantAndExclusive) {
    CCriticalSection cs;
    {
        CSingleLock outer(&cs, TRUE);
        CSingleLock inner(&cs, TRUE);  // the owner may enter again
        EXPECT_TRUE(inner.IsLocked());
        std::atomic<int> got{-1};
        std::thread([&] { got = cs.Lock(20); }).join();
        EXPECT_EQ(got.load(), FALSE);
    }
    std::atomic<int> got{-1};
    std::thread([&] {
        got = cs.Lock(1000);
        cs.Unlock();
    }).join();
    EXPECT_EQ(got.load(), TRUE);

    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int j = 0; j < 10000; ++j) {
                CSingleLock lock(&cs, TRUE);
                ++counter;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 40000);
}

TEST(CriticalSectionTest, CEventWakesAnotherThread) {
    CEvent ready(FALSE, TRUE);
    CEvent done;
    std::thread worker([&] {
        ready.Lock();
        done.SetEvent();
    });
    EXPECT_FALSE(done.Lock(20));
    ready.SetEvent();
    EXPECT_TRUE(done.Lock(5000));
    EXPECT_FALSE(done.Lock(0));  // auto-reset
    worker.join();
}
