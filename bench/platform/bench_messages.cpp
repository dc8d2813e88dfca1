// Cross-thread window messages: a SendMessage round trip to a window pumped by another thread, and a send
// followed by a post (what a progress notification costs), against a plain std::mutex +
// std::condition_variable ping-pong between two threads measured in the same run. Times are microseconds
// per round trip, best of five runs (the machine is shared); ratios are ours / reference, lower is better.
// The paced case puts 10 us of the sender's own work before each send and post, as a loader reporting
// progress does (the window thread is idle in between), against the same work without messages.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <thread>

#include "platform/WindowMessages.h"

namespace {

constexpr int kRoundTrips = 10000;
constexpr int kRuns = 5;
constexpr UINT kPing = WM_USER + 1;
constexpr UINT kPercent = WM_USER + 2;
constexpr std::chrono::microseconds kPace(10);

std::atomic<long> g_handled{0};

LRESULT proc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == kPing) return LRESULT(wParam + 1);
    if (message == kPercent) {
        g_handled.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    if (message == WM_CLOSE) PostQuitMessage(0);
    return DefWindowProc(hwnd, message, wParam, lParam);
}

class WindowThread {
public:
    WindowThread() {
        m_thread = std::thread([this] {
            HWND h = CreateMessageWindow(proc);
            m_hwnd.store(h);
            MSG msg;
            while (GetMessage(&msg, nullptr, 0, 0) > 0) DispatchMessage(&msg);
            DestroyWindow(h);
        });
        while (m_hwnd.load() == nullptr) std::this_thread::yield();
    }
    ~WindowThread() {
        PostMessage(m_hwnd.load(), WM_CLOSE, 0, 0);
        m_thread.join();
    }
    HWND hwnd() const { return m_hwnd.load(); }

private:
    std::atomic<HWND> m_hwnd{nullptr};
    std::thread m_thread;
};

struct Best {
    double wallUs = 1e300;
    double cpuUs = 1e300;
};

template <class F>
void measure(Best& best, F f) {
    std::clock_t c0 = std::clock();
    auto t0 = std::chrono::steady_clock::now();
    f();
    double wall = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count();
    double cpu = 1e6 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC;
    best.wallUs = std::min(best.wallUs, wall / kRoundTrips);
    best.cpuUs = std::min(best.cpuUs, cpu / kRoundTrips);
}

// The reference: one request and one answer through a mutex and a condition variable, as any hand-written
// cross-thread call would do it.
void pingPong() {
    std::mutex mutex;
    std::condition_variable changed;
    int request = 0, answer = 0;
    std::thread server([&] {
        std::unique_lock<std::mutex> lock(mutex);
        for (int i = 1; i <= kRoundTrips; ++i) {
            changed.wait(lock, [&] { return request == i; });
            answer = i;
            changed.notify_all();
        }
    });
    std::unique_lock<std::mutex> lock(mutex);
    for (int i = 1; i <= kRoundTrips; ++i) {
        request = i;
        changed.notify_all();
        changed.wait(lock, [&] { return answer == i; });
    }
    lock.unlock();
    server.join();
}

int sends(HWND hwnd, bool withPost) {
    int wrong = 0;
    for (int i = 0; i < kRoundTrips; ++i) {
        if (SendMessage(hwnd, kPing, WPARAM(i), 0) != LRESULT(i + 1)) ++wrong;
        if (withPost) PostMessage(hwnd, kPercent, 0, i);
    }
    return wrong;
}

// Busy work of the sender between two notifications.
void work(std::chrono::microseconds length) {
    auto until = std::chrono::steady_clock::now() + length;
    while (std::chrono::steady_clock::now() < until) {
    }
}

int pacedSends(HWND hwnd) {
    int wrong = 0;
    for (int i = 0; i < kRoundTrips; ++i) {
        work(kPace);
        if (hwnd == nullptr) continue;
        if (SendMessage(hwnd, kPing, WPARAM(i), 0) != LRESULT(i + 1)) ++wrong;
        PostMessage(hwnd, kPercent, 0, i);
    }
    return wrong;
}

void print(const char* name, const Best& ours, const Best& reference) {
    std::printf("bench %s %.2f us\n", name, ours.wallUs);
    std::printf("bench %s ratio %.2f\n", name, ours.wallUs / reference.wallUs);
    std::printf("bench %s_cpu %.2f us\n", name, ours.cpuUs);
}

}  // namespace

int main() {
    Best send, sendPost, reference, paced, workOnly;
    int wrong = 0;
    for (int run = 0; run < kRuns; ++run) {
        measure(reference, pingPong);
        WindowThread window;
        measure(send, [&] { wrong += sends(window.hwnd(), false); });
        measure(sendPost, [&] { wrong += sends(window.hwnd(), true); });
        measure(workOnly, [&] { pacedSends(nullptr); });
        measure(paced, [&] { wrong += pacedSends(window.hwnd()); });
    }
    std::printf("bench mutex_condvar_pingpong_reference %.2f us\n", reference.wallUs);
    std::printf("bench mutex_condvar_pingpong_reference_cpu %.2f us\n", reference.cpuUs);
    print("sendmessage_cross_thread_roundtrip", send, reference);
    print("sendmessage_postmessage_cross_thread", sendPost, reference);
    std::printf("bench paced_work_10us_reference %.2f us\n", workOnly.wallUs);
    print("sendmessage_postmessage_paced_10us", paced, workOnly);
    if (wrong != 0 || g_handled.load() != 2L * kRuns * kRoundTrips) {
        std::fprintf(stderr, "%d wrong answers, %ld posts handled\n", wrong, g_handled.load());
        return 1;
    }
    return 0;
}
