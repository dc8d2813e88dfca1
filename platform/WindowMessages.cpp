#include "platform/WindowMessages.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/internal/IdleWatch.h"
#include "platform/internal/KernelObjects.h"

namespace {

using Clock = std::chrono::steady_clock;

struct ThreadQueue;
struct Window;

struct SentMessage {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    LRESULT result = 0;
    std::atomic<bool> done{false};        // set under sender->mutex after result
    std::shared_ptr<ThreadQueue> sender;  // woken when done
    std::shared_ptr<Window> window;       // only touched on the window's thread once queued
};

struct Timer {
    HWND hwnd;
    UINT_PTR id;
    Clock::duration period;
    Clock::time_point due;
};

struct ThreadQueue {
    DWORD threadId = 0;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<SentMessage>> sent;
    std::deque<MSG> posted;
    std::vector<Timer> timers;
    bool quitPosted = false;
    int quitCode = 0;
    bool dead = false;
    UINT_PTR nextThreadTimerId = 0x7F00;
    bool sleeping = false;  // the owner waits on `changed`; only then is a notify worth its system call
    std::atomic<unsigned> arrivals{
        0};                           // bumped for every send, post and timer set, for an idle owner to watch
    tavik::platform::IdleWatch idle;  // the owner's spells between messages
    tavik::platform::IdleWatch replies;  // how long the owner's cross-thread sends waited for their answers
};

// Call with q's mutex held; notify `changed` after unlocking when it returns true, so the woken thread
// does not run straight into the mutex its waker still holds.
bool mustWake(const ThreadQueue& q) { return q.sleeping; }

// Without a second CPU nobody can answer while we spin.
const bool g_watchWorthIt = std::thread::hardware_concurrency() > 1;

// A queue's lock is held for a few pointer moves, mostly while the other side of a send runs on another
// CPU: a short spin on try_lock is far cheaper than sleeping in the kernel and being woken again.
void acquire(std::unique_lock<std::mutex>& lock) {
    if (g_watchWorthIt) {
        for (int i = 0; i < 64; ++i) {
            if (lock.try_lock()) return;
            tavik::platform::CpuRelax();
        }
    }
    lock.lock();
}

std::unique_lock<std::mutex> locked(std::mutex& mutex) {
    std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
    acquire(lock);
    return lock;
}

// Waits on q.changed (mutex held through `lock`) with the sleeping flag up; returns like wait_until.
std::cv_status sleepOn(ThreadQueue& q, std::unique_lock<std::mutex>& lock, Clock::time_point until) {
    q.sleeping = true;
    std::cv_status status = std::cv_status::no_timeout;
    if (until == Clock::time_point::max())
        q.changed.wait(lock);
    else
        status = q.changed.wait_until(lock, until);
    q.sleeping = false;
    return status;
}

struct Window {
    WNDPROC proc = nullptr;
    LONG_PTR userData = 0;
    std::weak_ptr<ThreadQueue> queue;
    DWORD threadId = 0;
    bool visible = false;
    bool destroying = false;
    bool gone = false;   // set under the queue's mutex when destroyed, so no send or post slips in later
    int modalLoops = 0;  // RunModalLoop calls running for the window
    bool modalEnded = false;
    INT_PTR modalResult = 0;
};

// Lock order: g_windowsMutex before any queue's mutex.
std::mutex g_windowsMutex;
std::map<HWND, std::shared_ptr<Window>>& windows() {
    static std::map<HWND, std::shared_ptr<Window>> table;
    return table;
}
std::map<DWORD, std::shared_ptr<ThreadQueue>>& queues() {
    static std::map<DWORD, std::shared_ptr<ThreadQueue>> table;
    return table;
}

struct QueueHolder {
    std::shared_ptr<ThreadQueue> queue;
    ~QueueHolder() {
        if (queue) tavik::platform::DiscardThreadMessageQueue();
    }
};
thread_local QueueHolder t_queue;
thread_local HWND* t_mainWindowSlot = nullptr;

std::shared_ptr<ThreadQueue> myQueue() {
    if (!t_queue.queue) {
        auto q = std::make_shared<ThreadQueue>();
        q->threadId = GetCurrentThreadId();
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        queues()[q->threadId] = q;
        t_queue.queue = q;
    }
    return t_queue.queue;
}

std::shared_ptr<Window> findWindow(HWND hwnd) {
    std::lock_guard<std::mutex> lock(g_windowsMutex);
    auto it = windows().find(hwnd);
    return it == windows().end() ? nullptr : it->second;
}

void complete(const std::shared_ptr<SentMessage>& sm, LRESULT result) {
    ThreadQueue& sender = *sm->sender;
    bool wake;
    {
        auto lock = locked(sender.mutex);
        sm->result = result;
        sm->done.store(true, std::memory_order_release);
        wake = mustWake(sender);
    }
    if (wake) sender.changed.notify_one();
}

// Runs on the window's thread, the only one that destroys it, so `gone` needs no lock here.
void deliverSent(const std::shared_ptr<SentMessage>& sm) {
    Window* w = sm->window.get();
    LRESULT result = 0;
    if (!w->gone && w->proc != nullptr) result = w->proc(sm->hwnd, sm->message, sm->wParam, sm->lParam);
    complete(sm, result);
}

bool matches(HWND msgHwnd, UINT message, HWND filter, UINT filterMin, UINT filterMax) {
    if (filter != nullptr && msgHwnd != filter) return false;
    if (filterMin == 0 && filterMax == 0) return true;
    return message >= filterMin && message <= filterMax;
}

// The core of GetMessage/PeekMessage/WaitMessage: handles sent messages, then looks for a posted
// message, WM_QUIT or a due timer, in that order.
bool fetch(MSG* out, HWND filter, UINT filterMin, UINT filterMax, bool remove, bool wait) {
    std::shared_ptr<ThreadQueue> q = myQueue();
    auto lock = locked(q->mutex);
    for (;;) {
        if (!q->sent.empty()) {
            auto sm = q->sent.front();
            q->sent.pop_front();
            lock.unlock();
            deliverSent(sm);
            acquire(lock);
            continue;
        }
        for (auto it = q->posted.begin(); it != q->posted.end(); ++it) {
            if (matches(it->hwnd, it->message, filter, filterMin, filterMax)) {
                if (out != nullptr) *out = *it;
                if (remove) q->posted.erase(it);
                return true;
            }
        }
        if (q->quitPosted) {
            if (out != nullptr) {
                *out = MSG{};
                out->message = WM_QUIT;
                out->wParam = WPARAM(q->quitCode);
                out->time = GetTickCount();
            }
            if (remove) q->quitPosted = false;
            return true;
        }
        Clock::time_point now = Clock::now();
        Clock::time_point earliest = Clock::time_point::max();
        for (Timer& t : q->timers) {
            if (!matches(t.hwnd, WM_TIMER, filter, filterMin, filterMax)) continue;
            if (t.due <= now) {
                if (out != nullptr) {
                    *out = MSG{};
                    out->hwnd = t.hwnd;
                    out->message = WM_TIMER;
                    out->wParam = t.id;
                    out->time = GetTickCount();
                }
                if (remove) t.due = now + t.period;
                return true;
            }
            earliest = std::min(earliest, t.due);
        }
        if (!wait) return false;
        Clock::time_point idleSince = now;
        if (g_watchWorthIt) {
            unsigned seen = q->arrivals.load(std::memory_order_relaxed);
            lock.unlock();
            q->idle.Watch(now, earliest, [&] { return q->arrivals.load(std::memory_order_relaxed) != seen; });
            acquire(lock);
            // Looked at again under the lock: a sender that came after the spin saw nobody sleeping.
            if (q->arrivals.load(std::memory_order_relaxed) != seen) {
                q->idle.Note(Clock::now() - idleSince);
                continue;
            }
        }
        sleepOn(*q, lock, earliest);
        q->idle.Note(Clock::now() - idleSince);
    }
}

bool postTo(const std::shared_ptr<ThreadQueue>& q, const Window* w, HWND hwnd, UINT message, WPARAM wParam,
            LPARAM lParam) {
    MSG msg;
    msg.hwnd = hwnd;
    msg.message = message;
    msg.wParam = wParam;
    msg.lParam = lParam;
    msg.time = GetTickCount();
    bool wake;
    {
        auto lock = locked(q->mutex);
        if (q->dead || (w != nullptr && w->gone)) return false;
        q->posted.push_back(msg);
        q->arrivals.fetch_add(1, std::memory_order_relaxed);
        wake = mustWake(*q);
    }
    if (wake) q->changed.notify_one();
    return true;
}

}  // namespace

void EnsureMessageQueue() { myQueue(); }

void tavik::platform::SetThreadMainWindowSlot(HWND__** slot) { t_mainWindowSlot = slot; }

HWND CreateMessageWindow(WNDPROC proc, void* user) {
    if (proc == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto w = std::make_shared<Window>();
    w->proc = proc;
    w->userData = reinterpret_cast<LONG_PTR>(user);
    w->queue = myQueue();
    w->threadId = GetCurrentThreadId();
    HWND hwnd = reinterpret_cast<HWND>(w.get());
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        windows()[hwnd] = w;
    }
    if (proc(hwnd, WM_CREATE, 0, reinterpret_cast<LPARAM>(user)) == -1) {
        DestroyWindow(hwnd);
        return nullptr;
    }
    return hwnd;
}

BOOL DestroyWindow(HWND hwnd) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w || w->threadId != GetCurrentThreadId()) {
        SetLastError(w ? ERROR_ACCESS_DENIED : ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        if (w->destroying) return TRUE;
        w->destroying = true;
    }
    w->proc(hwnd, WM_DESTROY, 0, 0);
    w->proc(hwnd, WM_NCDESTROY, 0, 0);
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        windows().erase(hwnd);
    }
    bool modal;
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        modal = w->modalLoops > 0;
    }
    std::vector<std::shared_ptr<SentMessage>> orphans;
    if (auto q = w->queue.lock()) {
        std::lock_guard<std::mutex> lock(q->mutex);
        w->gone = true;
        std::erase_if(q->timers, [&](const Timer& t) { return t.hwnd == hwnd; });
        std::erase_if(q->posted, [&](const MSG& m) { return m.hwnd == hwnd; });
        for (auto it = q->sent.begin(); it != q->sent.end();) {
            if ((*it)->hwnd == hwnd) {
                orphans.push_back(*it);
                it = q->sent.erase(it);
            } else {
                ++it;
            }
        }
        // A modal loop for the window may be waiting inside GetMessage (the destroy came from a sent
        // message): give it something to return so it notices.
        if (modal && !q->dead) {
            MSG wake;
            wake.message = WM_NULL;
            q->posted.push_back(wake);
        }
    }
    for (auto& sm : orphans) complete(sm, 0);
    if (t_mainWindowSlot != nullptr && *t_mainWindowSlot == hwnd) {
        *t_mainWindowSlot = nullptr;
        PostQuitMessage(0);
    }
    return TRUE;
}

void tavik::platform::DiscardThreadMessageQueue() {
    std::shared_ptr<ThreadQueue> q = t_queue.queue;
    if (!q) return;
    std::vector<HWND> mine;
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        for (auto& [hwnd, w] : windows())
            if (w->threadId == q->threadId) mine.push_back(hwnd);
    }
    for (HWND hwnd : mine) DestroyWindow(hwnd);
    std::deque<std::shared_ptr<SentMessage>> orphans;
    {
        std::lock_guard<std::mutex> windowsLock(g_windowsMutex);
        queues().erase(q->threadId);
        std::lock_guard<std::mutex> lock(q->mutex);
        q->dead = true;
        orphans.swap(q->sent);
        q->posted.clear();
        q->timers.clear();
    }
    for (auto& sm : orphans) complete(sm, 0);
    t_queue.queue.reset();
}

BOOL IsWindow(HWND hwnd) { return hwnd != nullptr && findWindow(hwnd) != nullptr; }

BOOL ShowWindow(HWND hwnd, int command) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) return FALSE;
    bool show = command != SW_HIDE;
    bool was;
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        was = w->visible;
        w->visible = show;
    }
    if (was != show) SendMessage(hwnd, WM_SHOWWINDOW, show ? TRUE : FALSE, 0);
    return was ? TRUE : FALSE;
}

BOOL IsWindowVisible(HWND hwnd) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) return FALSE;
    std::lock_guard<std::mutex> lock(g_windowsMutex);
    return w->visible ? TRUE : FALSE;
}

LONG_PTR GetWindowLongPtr(HWND hwnd, int index) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    std::lock_guard<std::mutex> lock(g_windowsMutex);
    if (index == GWLP_USERDATA) return w->userData;
    if (index == GWLP_WNDPROC) return reinterpret_cast<LONG_PTR>(w->proc);
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
}

LONG_PTR SetWindowLongPtr(HWND hwnd, int index, LONG_PTR value) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
    }
    std::lock_guard<std::mutex> lock(g_windowsMutex);
    if (index == GWLP_USERDATA) return std::exchange(w->userData, value);
    if (index == GWLP_WNDPROC && value != 0) {
        return reinterpret_cast<LONG_PTR>(std::exchange(w->proc, reinterpret_cast<WNDPROC>(value)));
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
}

DWORD GetWindowThreadProcessId(HWND hwnd, DWORD* processId) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) return 0;
    if (processId != nullptr) *processId = GetCurrentProcessId();
    return w->threadId;
}

LRESULT DefWindowProc(HWND hwnd, UINT message, WPARAM, LPARAM) {
    if (message == WM_CLOSE) DestroyWindow(hwnd);
    return 0;
}

namespace {

// Sends and waits at most `timeout` ms (INFINITE: for ever). False when the window is not a window or
// the time ran out; a message that timed out is still delivered later, its answer dropped.
bool sendAndWait(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam, DWORD timeout, LRESULT* result) {
    *result = 0;
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return false;
    }
    if (w->threadId == GetCurrentThreadId()) {
        WNDPROC proc;
        {
            std::lock_guard<std::mutex> lock(g_windowsMutex);
            proc = w->proc;
        }
        *result = proc(hwnd, message, wParam, lParam);
        return true;
    }
    std::shared_ptr<ThreadQueue> target = w->queue.lock();
    if (!target) return false;
    std::shared_ptr<ThreadQueue> me = myQueue();
    auto sm = std::make_shared<SentMessage>();
    sm->hwnd = hwnd;
    sm->message = message;
    sm->wParam = wParam;
    sm->lParam = lParam;
    sm->sender = me;
    sm->window = w;
    bool wake;
    {
        auto lock = locked(target->mutex);
        if (target->dead || w->gone) return false;
        target->sent.push_back(sm);
        target->arrivals.fetch_add(1, std::memory_order_relaxed);
        wake = mustWake(*target);
    }
    if (wake) target->changed.notify_one();
    // Wait for the answer, handling what other threads send to us meanwhile.
    Clock::time_point sentAt = Clock::now();
    auto deadline =
        timeout == INFINITE ? Clock::time_point::max() : sentAt + std::chrono::milliseconds(timeout);
    if (g_watchWorthIt) {
        unsigned seen = me->arrivals.load(std::memory_order_relaxed);
        me->replies.Watch(sentAt, deadline, [&] {
            return sm->done.load(std::memory_order_acquire) ||
                   me->arrivals.load(std::memory_order_relaxed) != seen;
        });
    }
    auto lock = locked(me->mutex);
    while (!sm->done.load(std::memory_order_relaxed)) {
        if (!me->sent.empty()) {
            auto incoming = me->sent.front();
            me->sent.pop_front();
            lock.unlock();
            deliverSent(incoming);
            acquire(lock);
            continue;
        }
        if (sleepOn(*me, lock, deadline) == std::cv_status::timeout && !sm->done && me->sent.empty()) {
            me->replies.Note(Clock::now() - sentAt);
            SetLastError(ERROR_TIMEOUT);
            return false;
        }
    }
    me->replies.Note(Clock::now() - sentAt);
    *result = sm->result;
    return true;
}

}  // namespace

LRESULT SendMessage(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    LRESULT result;
    sendAndWait(hwnd, message, wParam, lParam, INFINITE, &result);
    return result;
}

LRESULT SendMessageTimeout(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam, UINT, UINT timeout,
                           DWORD_PTR* result) {
    LRESULT r;
    bool ok = sendAndWait(hwnd, message, wParam, lParam, timeout == INFINITE ? INFINITE - 1 : timeout, &r);
    if (result != nullptr) *result = ok ? DWORD_PTR(r) : 0;
    return ok ? 1 : 0;
}

BOOL PostMessage(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    if (hwnd == nullptr) return postTo(myQueue(), nullptr, nullptr, message, wParam, lParam) ? TRUE : FALSE;
    std::shared_ptr<Window> w = findWindow(hwnd);
    std::shared_ptr<ThreadQueue> q = w ? w->queue.lock() : nullptr;
    if (!q || !postTo(q, w.get(), hwnd, message, wParam, lParam)) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return FALSE;
    }
    return TRUE;
}

BOOL PostThreadMessage(DWORD threadId, UINT message, WPARAM wParam, LPARAM lParam) {
    std::shared_ptr<ThreadQueue> q;
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        auto it = queues().find(threadId);
        if (it != queues().end()) q = it->second;
    }
    if (!q || !postTo(q, nullptr, nullptr, message, wParam, lParam)) {
        SetLastError(ERROR_INVALID_THREAD_ID);
        return FALSE;
    }
    return TRUE;
}

void PostQuitMessage(int exitCode) {
    std::shared_ptr<ThreadQueue> q = myQueue();
    std::lock_guard<std::mutex> lock(q->mutex);
    q->quitPosted = true;
    q->quitCode = exitCode;
}

BOOL GetMessage(MSG* msg, HWND hwnd, UINT filterMin, UINT filterMax) {
    if (hwnd != nullptr && !IsWindow(hwnd)) {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return -1;
    }
    MSG local;
    if (msg == nullptr) msg = &local;
    fetch(msg, hwnd, filterMin, filterMax, true, true);
    return msg->message == WM_QUIT ? FALSE : TRUE;
}

BOOL PeekMessage(MSG* msg, HWND hwnd, UINT filterMin, UINT filterMax, UINT removeFlags) {
    return fetch(msg, hwnd, filterMin, filterMax, (removeFlags & PM_REMOVE) != 0, false) ? TRUE : FALSE;
}

BOOL WaitMessage() {
    fetch(nullptr, nullptr, 0, 0, false, true);
    return TRUE;
}

BOOL TranslateMessage(const MSG*) { return FALSE; }

LRESULT DispatchMessage(const MSG* msg) {
    if (msg == nullptr || msg->hwnd == nullptr) return 0;
    std::shared_ptr<Window> w = findWindow(msg->hwnd);
    if (!w || w->threadId != GetCurrentThreadId()) return 0;
    return w->proc(msg->hwnd, msg->message, msg->wParam, msg->lParam);
}

UINT_PTR SetTimer(HWND hwnd, UINT_PTR id, UINT milliseconds, void* timerFunc) {
    if (timerFunc != nullptr) {
        SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
        return 0;
    }
    std::shared_ptr<ThreadQueue> q;
    std::shared_ptr<Window> w;
    if (hwnd == nullptr) {
        q = myQueue();
    } else {
        w = findWindow(hwnd);
        q = w ? w->queue.lock() : nullptr;
        if (!q) {
            SetLastError(ERROR_INVALID_WINDOW_HANDLE);
            return 0;
        }
    }
    auto period = std::chrono::milliseconds(std::max<UINT>(milliseconds, 1));
    bool wake;
    {
        std::lock_guard<std::mutex> lock(q->mutex);
        if (w && w->gone) {
            SetLastError(ERROR_INVALID_WINDOW_HANDLE);
            return 0;
        }
        if (hwnd == nullptr) id = ++q->nextThreadTimerId;
        std::erase_if(q->timers, [&](const Timer& t) { return t.hwnd == hwnd && t.id == id; });
        q->timers.push_back(Timer{hwnd, id, period, Clock::now() + period});
        q->arrivals.fetch_add(1, std::memory_order_relaxed);
        wake = mustWake(*q);  // a sleeping owner must work out its next deadline again
    }
    if (wake) q->changed.notify_one();
    return id == 0 ? 1 : id;
}

BOOL KillTimer(HWND hwnd, UINT_PTR id) {
    std::shared_ptr<ThreadQueue> q;
    if (hwnd == nullptr) {
        q = myQueue();
    } else {
        std::shared_ptr<Window> w = findWindow(hwnd);
        q = w ? w->queue.lock() : nullptr;
    }
    if (!q) return FALSE;
    std::lock_guard<std::mutex> lock(q->mutex);
    return std::erase_if(q->timers, [&](const Timer& t) { return t.hwnd == hwnd && t.id == id; }) > 0;
}

INT_PTR RunModalLoop(HWND hwnd) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) return -1;
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        ++w->modalLoops;
    }
    INT_PTR result = -1;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(g_windowsMutex);
            if (w->modalEnded) {
                w->modalEnded = false;
                result = w->modalResult;
                break;
            }
        }
        if (!IsWindow(hwnd)) break;
        MSG msg;
        if (!GetMessage(&msg, nullptr, 0, 0)) {
            PostQuitMessage(int(msg.wParam));
            break;
        }
        TranslateMessage(&msg);
        DispatchMessage(&msg);
    }
    std::lock_guard<std::mutex> lock(g_windowsMutex);
    --w->modalLoops;
    return result;
}

BOOL EndModalLoop(HWND hwnd, INT_PTR result) {
    std::shared_ptr<Window> w = findWindow(hwnd);
    if (!w) return FALSE;
    bool running;
    {
        std::lock_guard<std::mutex> lock(g_windowsMutex);
        w->modalEnded = true;
        w->modalResult = result;
        running = w->modalLoops > 0;
    }
    // The loop may be waiting inside GetMessage (an end from another thread, or from a sent message).
    if (running) PostMessage(hwnd, WM_NULL, 0, 0);
    return TRUE;
}
