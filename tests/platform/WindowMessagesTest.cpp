// Window messages between real threads: sends that block until the window's thread handles them,
// posted order, quit, timers and the modal loop; and CWinThread on top of them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/CWinThread.h"
#include "platform/Kernel.h"
#include "platform/WindowMessages.h"

namespace {

constexpr UINT WM_ADD = WM_USER + 1;    // returns wParam + lParam
constexpr UINT WM_BLOCK = WM_USER + 2;  // sets event wParam, waits for event lParam
constexpr UINT WM_WHO = WM_USER + 3;    // returns the handling thread's id
constexpr UINT WM_ECHO = WM_USER + 4;   // sends WM_ADD to the window in wParam and returns its answer

std::atomic<int> g_destroyed{0};

LRESULT testProc(HWND hwnd, UINT msg, WPARAM w, LPARAM l) {
    switch (msg) {
        case WM_ADD:
            return LRESULT(w + WPARAM(l));
        case WM_BLOCK:
            SetEvent(reinterpret_cast<HANDLE>(w));
            WaitForSingleObject(reinterpret_cast<HANDLE>(l), 10000);
            return 1;
        case WM_WHO:
            return LRESULT(GetCurrentThreadId());
        case WM_ECHO:
            return SendMessage(reinterpret_cast<HWND>(w), WM_ADD, 1, 2);
        case WM_DESTROY:
            ++g_destroyed;
            return 0;
        default:
            return DefWindowProc(hwnd, msg, w, l);
    }
}

// A manual-reset event that closes itself.
struct Event {
    HANDLE h = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    ~Event() { CloseHandle(h); }
    operator HANDLE() const { return h; }
};

// A thread that owns a window and pumps its messages until WM_QUIT.
class WindowThread {
public:
    WindowThread() {
        Event ready;
        m_thread = std::thread([this, r = ready.h] {
            m_hwnd = CreateMessageWindow(testProc);
            m_id = GetCurrentThreadId();
            SetEvent(r);
            MSG msg;
            while (GetMessage(&msg, nullptr, 0, 0) > 0) DispatchMessage(&msg);
        });
        WaitForSingleObject(ready, INFINITE);
    }
    ~WindowThread() { stop(); }
    void stop() {
        if (!m_thread.joinable()) return;
        PostThreadMessage(m_id, WM_QUIT, 0, 0);
        m_thread.join();
    }
    HWND hwnd() const { return m_hwnd; }
    DWORD id() const { return m_id; }

private:
    std::thread m_thread;
    HWND m_hwnd = nullptr;
    DWORD m_id = 0;
};

}  // namespace

TEST(SendMessageTest, RunsOnTheWindowsThreadAndReturnsItsResult) {
    WindowThread window;
    EXPECT_EQ(DWORD(SendMessage(window.hwnd(), WM_WHO, 0, 0)), window.id());
    std::vector<std::thread> senders;
    std::atomic<int> right{0};
    for (int i = 0; i < 4; ++i)
        senders.emplace_back([&, i] {
            for (int j = 0; j < 50; ++j)
                if (SendMessage(window.hwnd(), WM_ADD, WPARAM(i), j) == i + j) ++right;
        });
    for (auto& t : senders) t.join();
    EXPECT_EQ(right.load(), 200);
}

TEST(SendMessageTest, ABlockedWindowThreadBlocksTheSender) {
    WindowThread window;
    Event entered, release, answered;
    // The window's thread sits inside WM_BLOCK; a second send must wait for it.
    PostMessage(window.hwnd(), WM_BLOCK, WPARAM(entered.h), LPARAM(release.h));
    ASSERT_EQ(WaitForSingleObject(entered, 5000), WAIT_OBJECT_0);
    std::atomic<LRESULT> result{-1};
    std::thread sender([&] {
        result = SendMessage(window.hwnd(), WM_ADD, 1, 1);
        SetEvent(answered);
    });
    EXPECT_EQ(WaitForSingleObject(answered, 100), WAIT_TIMEOUT);
    DWORD_PTR bounded = 99;
    EXPECT_EQ(SendMessageTimeout(window.hwnd(), WM_ADD, 2, 2, SMTO_NORMAL, 30, &bounded), 0);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_TIMEOUT));
    EXPECT_EQ(bounded, 0u);
    SetEvent(release);
    EXPECT_EQ(WaitForSingleObject(answered, 5000), WAIT_OBJECT_0);
    sender.join();
    EXPECT_EQ(result.load(), 2);
    EXPECT_NE(SendMessageTimeout(window.hwnd(), WM_ADD, 2, 3, SMTO_BLOCK, 5000, &bounded), 0);
    EXPECT_EQ(bounded, 5u);
}

TEST(SendMessageTest, ThreadsSendingToEachOtherDoNotDeadlock) {
    WindowThread a;
    WindowThread b;
    // a's procedure sends to b while our send to a waits: both sides keep handling sends.
    EXPECT_EQ(SendMessage(a.hwnd(), WM_ECHO, WPARAM(b.hwnd()), 0), 3);
    // And back to a window of the sending thread itself.
    HWND mine = CreateMessageWindow(testProc);
    EXPECT_EQ(SendMessage(a.hwnd(), WM_ECHO, WPARAM(mine), 0), 3);
    DestroyWindow(mine);
}

// Both sides spin for a while before they sleep, for a time that follows the pace of the messages: a
// send or post that lands just as one of them gives up spinning must still wake it. Pauses around
// those times; a lost wake-up shows as a send that only ends once a later post wakes the window.
TEST(SendMessageTest, NoWakeUpIsLostAtAnyPace) {
    WindowThread window;
    Event finished;
    std::atomic<int> wrong{0};
    std::thread sender([&] {
        for (int i = 0; i < 1500; ++i) {
            auto until = std::chrono::steady_clock::now() + std::chrono::microseconds((i * 37) % 400);
            while (std::chrono::steady_clock::now() < until) {
            }
            if (SendMessage(window.hwnd(), WM_ADD, WPARAM(i), 1) != i + 1) ++wrong;
            PostMessage(window.hwnd(), WM_NULL, 0, 0);
        }
        SetEvent(finished);
    });
    bool inTime = WaitForSingleObject(finished, 20000) == WAIT_OBJECT_0;
    while (WaitForSingleObject(finished, 10) != WAIT_OBJECT_0) PostMessage(window.hwnd(), WM_NULL, 0, 0);
    sender.join();
    EXPECT_TRUE(inTime);
    EXPECT_EQ(wrong.load(), 0);
}

TEST(SendMessageTest, PendingSendsEndWithZeroWhenTheWindowGoes) {
    g_destroyed = 0;
    auto window = std::make_unique<WindowThread>();
    HWND hwnd = window->hwnd();
    Event entered, release;
    PostMessage(hwnd, WM_BLOCK, WPARAM(entered.h), LPARAM(release.h));
    PostThreadMessage(window->id(), WM_QUIT, 0, 0);  // the thread ends right after the blocked message
    ASSERT_EQ(WaitForSingleObject(entered, 5000), WAIT_OBJECT_0);
    std::atomic<LRESULT> result{-1};
    std::thread sender([&] { result = SendMessage(hwnd, WM_ADD, 5, 5); });
    SetEvent(release);
    sender.join();
    window.reset();
    // Either the send got in before the thread ended (10) or it was answered 0 as the window went.
    EXPECT_TRUE(result.load() == 10 || result.load() == 0) << result.load();
    EXPECT_FALSE(IsWindow(hwnd));
    EXPECT_EQ(g_destroyed.load(), 1);
    EXPECT_EQ(SendMessage(hwnd, WM_ADD, 1, 1), 0);
    EXPECT_FALSE(PostMessage(hwnd, WM_ADD, 1, 1));
}

TEST(PostMessageTest, OrderFiltersAndQuit) {
    HWND hwnd = CreateMessageWindow(testProc);
    for (int i = 0; i < 5; ++i) PostMessage(hwnd, WM_USER + 100 + i, WPARAM(i), 0);
    PostMessage(nullptr, WM_USER + 200, 7, 0);  // a thread message
    PostQuitMessage(3);
    MSG msg;
    ASSERT_TRUE(PeekMessage(&msg, nullptr, 0, 0, PM_NOREMOVE));
    EXPECT_EQ(msg.message, WM_USER + 100);
    ASSERT_TRUE(PeekMessage(&msg, nullptr, WM_USER + 102, WM_USER + 103, PM_REMOVE));
    EXPECT_EQ(msg.message, WM_USER + 102);  // filtered out of order
    std::vector<UINT> order;
    while (GetMessage(&msg, nullptr, 0, 0)) order.push_back(msg.message);
    EXPECT_EQ(msg.wParam, 3u);  // WM_QUIT comes last, after every posted message
    std::vector<UINT> expected = {WM_USER + 100, WM_USER + 101, WM_USER + 103, WM_USER + 104, WM_USER + 200};
    EXPECT_EQ(order, expected);
    EXPECT_FALSE(PeekMessage(&msg, nullptr, 0, 0, PM_REMOVE));
    DestroyWindow(hwnd);
    EXPECT_FALSE(PostThreadMessage(0x7FFFFFF0u, WM_USER, 0, 0));
    EXPECT_EQ(GetLastError(), DWORD(ERROR_INVALID_THREAD_ID));
}

namespace {
std::atomic<int> g_ticks{0};
LRESULT timerProc(HWND hwnd, UINT msg, WPARAM w, LPARAM l) {
    if (msg == WM_TIMER && w == 33) {
        if (++g_ticks == 3) KillTimer(hwnd, 33);
        return 0;
    }
    if (msg == WM_USER) {
        EndDialog(hwnd, INT_PTR(w));
        return 0;
    }
    return DefWindowProc(hwnd, msg, w, l);
}
}  // namespace

TEST(TimerTest, TicksUntilKilledAndCoalesces) {
    g_ticks = 0;
    HWND hwnd = CreateMessageWindow(timerProc);
    EXPECT_EQ(SetTimer(hwnd, 33, 1, nullptr), 33u);
    MSG msg;
    while (g_ticks < 3 && GetMessage(&msg, nullptr, 0, 0)) DispatchMessage(&msg);
    EXPECT_EQ(g_ticks.load(), 3);
    EXPECT_FALSE(KillTimer(hwnd, 33));  // already gone
    EXPECT_FALSE(PeekMessage(&msg, nullptr, WM_TIMER, WM_TIMER, PM_REMOVE));

    // A timer whose period passed many times while nobody pumped yields one WM_TIMER, not a backlog.
    SetTimer(hwnd, 34, 1, nullptr);
    Sleep(30);
    ASSERT_TRUE(PeekMessage(&msg, nullptr, WM_TIMER, WM_TIMER, PM_REMOVE));
    EXPECT_EQ(msg.wParam, 34u);
    EXPECT_EQ(msg.hwnd, hwnd);
    EXPECT_FALSE(PeekMessage(&msg, nullptr, WM_TIMER, WM_TIMER, PM_REMOVE));
    DestroyWindow(hwnd);  // takes its timers along
    EXPECT_FALSE(KillTimer(hwnd, 34));
    EXPECT_EQ(SetTimer(hwnd, 35, 1, nullptr), 0u);
}

TEST(ModalLoopTest, EndsFromItsProcedureFromAnotherThreadOrEarly) {
    HWND hwnd = CreateMessageWindow(timerProc);
    PostMessage(hwnd, WM_USER, 7, 0);
    EXPECT_EQ(RunModalLoop(hwnd), 7);

    std::thread ender([hwnd] {
        // EndDialog from another thread wakes a loop that is waiting in GetMessage.
        Sleep(20);
        EndDialog(hwnd, IDCANCEL);
    });
    EXPECT_EQ(RunModalLoop(hwnd), IDCANCEL);
    ender.join();

    EndDialog(hwnd, IDOK);  // before the loop: it returns at once
    EXPECT_EQ(RunModalLoop(hwnd), IDOK);

    PostQuitMessage(9);  // a quit ends the loop and stays for the outer one
    EXPECT_EQ(RunModalLoop(hwnd), -1);
    MSG msg;
    EXPECT_FALSE(GetMessage(&msg, nullptr, 0, 0));
    EXPECT_EQ(msg.wParam, 9u);
    DestroyWindow(hwnd);
    EXPECT_EQ(RunModalLoop(hwnd), -1);
}

TEST(WindowTest, VisibilityUserDataAndCreation) {
    static std::vector<std::pair<UINT, WPARAM>> seen;
    seen.clear();
    auto proc = [](HWND hwnd, UINT msg, WPARAM w, LPARAM l) -> LRESULT {
        seen.emplace_back(msg, w);
        if (msg == WM_CREATE && reinterpret_cast<void*>(l) == &seen) return -1;
        return DefWindowProc(hwnd, msg, w, l);
    };
    int user = 0;
    HWND hwnd = CreateMessageWindow(proc, &user);
    ASSERT_NE(hwnd, nullptr);
    EXPECT_EQ(GetWindowLongPtr(hwnd, GWLP_USERDATA), reinterpret_cast<LONG_PTR>(&user));
    EXPECT_FALSE(ShowWindow(hwnd, SW_SHOW));
    EXPECT_TRUE(ShowWindow(hwnd, SW_SHOW));  // no change, no message
    ShowWindow(hwnd, SW_HIDE);
    SendMessage(hwnd, WM_CLOSE, 0, 0);  // the default closes by destroying
    EXPECT_FALSE(IsWindow(hwnd));
    std::vector<std::pair<UINT, WPARAM>> expected = {{WM_CREATE, 0},         {WM_SHOWWINDOW, TRUE},
                                                     {WM_SHOWWINDOW, FALSE}, {WM_CLOSE, 0},
                                                     {WM_DESTROY, 0},        {WM_NCDESTROY, 0}};
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(CreateMessageWindow(proc, &seen), nullptr);  // WM_CREATE said no
}

namespace {
class UiThread : public CWinThread {
    DECLARE_DYNCREATE(UiThread)
public:
    static std::atomic<int> exits;
    static std::atomic<HWND> window;
    BOOL InitInstance() override {
        m_pMainWnd = CreateMessageWindow(testProc);
        window = m_pMainWnd;
        return TRUE;
    }
    int ExitInstance() override {
        ++exits;
        return CWinThread::ExitInstance() + 100;
    }
};
std::atomic<int> UiThread::exits{0};
std::atomic<HWND> UiThread::window{nullptr};
IMPLEMENT_DYNCREATE(UiThread, CWinThread)

// Starts a UiThread and waits for its window. A message posted before the thread runs must wait in its
// queue for the loop rather than be lost.
CWinThread* startUiThread() {
    UiThread::exits = 0;
    UiThread::window = nullptr;
    CWinThread* t = AfxBeginThread(RUNTIME_CLASS(UiThread), 0, 0, CREATE_SUSPENDED);
    if (!t) return nullptr;
    t->m_bAutoDelete = FALSE;
    EXPECT_TRUE(t->PostThreadMessage(WM_USER + 9, 0, 0));
    t->ResumeThread();
    while (UiThread::window.load() == nullptr) std::this_thread::yield();
    return t;
}

DWORD exitCodeOf(CWinThread* t) {
    DWORD code = 0;
    EXPECT_EQ(WaitForSingleObject(t->m_hThread, 5000), WAIT_OBJECT_0);
    GetExitCodeThread(t->m_hThread, &code);
    return code;
}
}  // namespace

TEST(CWinThreadTest, UserInterfaceThreadEndsByQuitOrByClosingItsMainWindow) {
    CWinThread* t = startUiThread();
    ASSERT_NE(t, nullptr);
    // The window lives on the new thread; a send from here is handled there.
    HWND hwnd = UiThread::window.load();
    EXPECT_EQ(DWORD(SendMessage(hwnd, WM_WHO, 0, 0)), t->m_nThreadID);
    t->PostThreadMessage(WM_QUIT, 5, 0);
    EXPECT_EQ(exitCodeOf(t), 105u);
    EXPECT_EQ(UiThread::exits.load(), 1);
    EXPECT_FALSE(IsWindow(hwnd));  // the thread's windows went with it
    delete t;
    EXPECT_EQ(AfxBeginThread(RUNTIME_CLASS(CObject)), nullptr);

    t = startUiThread();
    ASSERT_NE(t, nullptr);
    SendMessage(UiThread::window.load(), WM_CLOSE, 0, 0);
    EXPECT_EQ(exitCodeOf(t), 100u);
    EXPECT_EQ(UiThread::exits.load(), 1);
    delete t;
}

TEST(CWinThreadTest, WorkerThreadsRunAndDeleteThemselves) {
    static std::atomic<CWinThread*> self{nullptr};
    Event done;
    auto work = [](LPVOID p) -> UINT {
        self = AfxGetThread();
        SetEvent(static_cast<HANDLE>(p));
        return 0;
    };
    CWinThread* t = AfxBeginThread(work, done.h);
    ASSERT_NE(t, nullptr);
    ASSERT_EQ(WaitForSingleObject(done, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(self.load(), t);
    EXPECT_EQ(AfxGetThread(), nullptr);  // not a CWinThread here

    CWinThread* kept = AfxBeginThread([](LPVOID) -> UINT { return 17; }, nullptr, 0, 0, CREATE_SUSPENDED);
    kept->m_bAutoDelete = FALSE;
    kept->ResumeThread();
    EXPECT_EQ(exitCodeOf(kept), 17u);
    delete kept;
}
