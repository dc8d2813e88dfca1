#include "platform/Kernel.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "platform/internal/KernelObjects.h"
#include "platform/internal/SystemCalls.h"

// The file-mapping family (platform/internal/FileMappingObject.h) keeps its objects in this table.
namespace tavik::platform {
struct FileMappingObject;
HANDLE NewFileMappingHandle(std::shared_ptr<FileMappingObject> object);
std::shared_ptr<FileMappingObject> FileMappingOfHandle(HANDLE handle);
}  // namespace tavik::platform

namespace {

// One lock and one condition for every waitable object: waits on several objects at once stay simple,
// and the traffic (a few events per mail session) does not need finer locking.
std::mutex g_kernelMutex;
std::condition_variable g_kernelChanged;

struct HandleEntry {
    tavik::platform::HandleKind kind;
    std::shared_ptr<void> object;
};
std::map<HANDLE, HandleEntry>& handleTable() {
    static std::map<HANDLE, HandleEntry> table;
    return table;
}
// Far above any file descriptor, which CFile uses as its handle value.
std::uintptr_t g_nextHandle = 0x1000000;

struct EventObject {
    bool manualReset = false;
    bool signaled = false;
    std::string name;
    // PulseEvent: waiters that started before a pulse see the generation move on.
    std::uint64_t pulseGeneration = 0;
    int pulseTokens = 0;  // auto-reset: waiters a pulse may still release
    int waiters = 0;
};

struct ThreadObject {
    bool suspended = false;
    bool finished = false;
    DWORD exitCode = STILL_ACTIVE;
    LPTHREAD_START_ROUTINE start = nullptr;
    LPVOID parameter = nullptr;
    DWORD threadId = 0;
};

std::map<std::string, std::weak_ptr<EventObject>>& namedEvents() {
    static std::map<std::string, std::weak_ptr<EventObject>> events;
    return events;
}

HANDLE newHandleLocked(tavik::platform::HandleKind kind, std::shared_ptr<void> object) {
    HANDLE h = reinterpret_cast<HANDLE>(g_nextHandle);
    g_nextHandle += 4;
    handleTable()[h] = HandleEntry{kind, std::move(object)};
    return h;
}

HandleEntry* findLocked(HANDLE h) {
    auto it = handleTable().find(h);
    return it == handleTable().end() ? nullptr : &it->second;
}

std::shared_ptr<EventObject> eventLocked(HANDLE h) {
    HandleEntry* e = findLocked(h);
    if (e == nullptr || e->kind != tavik::platform::HandleKind::Event) return nullptr;
    return std::static_pointer_cast<EventObject>(e->object);
}

// A waitable object seen by a wait in progress.
struct Waitable {
    std::shared_ptr<EventObject> event;
    std::shared_ptr<ThreadObject> thread;
    std::uint64_t startGeneration = 0;

    bool ready() const {
        if (thread) return thread->finished;
        if (event->signaled) return true;
        if (event->pulseGeneration == startGeneration) return false;
        return event->manualReset || event->pulseTokens > 0;
    }
    void consume() {
        if (!event) return;
        if (event->signaled) {
            if (!event->manualReset) event->signaled = false;
        } else if (!event->manualReset && event->pulseTokens > 0) {
            --event->pulseTokens;
        }
    }
};

std::atomic<DWORD> g_nextThreadId{1};
thread_local DWORD t_threadId = 0;

}  // namespace

HANDLE tavik::platform::NewKernelHandle(HandleKind kind, std::shared_ptr<void> object) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    return newHandleLocked(kind, std::move(object));
}

std::shared_ptr<void> tavik::platform::KernelObjectOfHandle(HANDLE handle, HandleKind kind) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    HandleEntry* e = findLocked(handle);
    if (e == nullptr || e->kind != kind) return nullptr;
    return e->object;
}

HANDLE tavik::platform::NewFileMappingHandle(std::shared_ptr<FileMappingObject> object) {
    return NewKernelHandle(HandleKind::FileMapping, std::move(object));
}

std::shared_ptr<tavik::platform::FileMappingObject> tavik::platform::FileMappingOfHandle(HANDLE handle) {
    return std::static_pointer_cast<FileMappingObject>(KernelObjectOfHandle(handle, HandleKind::FileMapping));
}

HANDLE CreateEvent(void*, BOOL manualReset, BOOL initialState, LPCTSTR name) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    if (name != nullptr && *name != '\0') {
        auto it = namedEvents().find(name);
        if (it != namedEvents().end()) {
            if (auto existing = it->second.lock()) {
                SetLastError(ERROR_ALREADY_EXISTS);
                return newHandleLocked(tavik::platform::HandleKind::Event, existing);
            }
        }
    }
    auto event = std::make_shared<EventObject>();
    event->manualReset = manualReset != FALSE;
    event->signaled = initialState != FALSE;
    if (name != nullptr && *name != '\0') {
        event->name = name;
        namedEvents()[event->name] = event;
    }
    SetLastError(ERROR_SUCCESS);
    return newHandleLocked(tavik::platform::HandleKind::Event, event);
}

BOOL SetEvent(HANDLE h) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    auto event = eventLocked(h);
    if (!event) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    event->signaled = true;
    g_kernelChanged.notify_all();
    return TRUE;
}

BOOL ResetEvent(HANDLE h) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    auto event = eventLocked(h);
    if (!event) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    event->signaled = false;
    return TRUE;
}

BOOL PulseEvent(HANDLE h) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    auto event = eventLocked(h);
    if (!event) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (event->waiters > 0) {
        ++event->pulseGeneration;
        event->pulseTokens = event->manualReset ? event->waiters : 1;
        g_kernelChanged.notify_all();
    }
    event->signaled = false;
    return TRUE;
}

BOOL CloseHandle(HANDLE h) {
    std::shared_ptr<void> doomed;  // destroyed outside the lock (a mapping's destructor closes files)
    {
        std::lock_guard<std::mutex> lock(g_kernelMutex);
        auto it = handleTable().find(h);
        if (it == handleTable().end()) {
            SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        // A named event's entry expires with its last handle; CreateEvent replaces expired entries.
        doomed = std::move(it->second.object);
        handleTable().erase(it);
    }
    return TRUE;
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
    if (count == 0 || count > MAXIMUM_WAIT_OBJECTS || handles == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    std::unique_lock<std::mutex> lock(g_kernelMutex);
    Waitable objects[MAXIMUM_WAIT_OBJECTS];
    for (DWORD i = 0; i < count; ++i) {
        HandleEntry* e = findLocked(handles[i]);
        if (e == nullptr || e->kind == tavik::platform::HandleKind::FileMapping) {
            SetLastError(ERROR_INVALID_HANDLE);
            return WAIT_FAILED;
        }
        if (e->kind == tavik::platform::HandleKind::Event) {
            objects[i].event = std::static_pointer_cast<EventObject>(e->object);
            objects[i].startGeneration = objects[i].event->pulseGeneration;
        } else {
            objects[i].thread = std::static_pointer_cast<ThreadObject>(e->object);
        }
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (DWORD i = 0; i < count; ++i)
        if (objects[i].event) ++objects[i].event->waiters;
    DWORD result = WAIT_TIMEOUT;
    for (;;) {
        if (waitAll) {
            bool all = true;
            for (DWORD i = 0; i < count && all; ++i) all = objects[i].ready();
            if (all) {
                for (DWORD i = 0; i < count; ++i) objects[i].consume();
                result = WAIT_OBJECT_0;
                break;
            }
        } else {
            DWORD hit = count;
            for (DWORD i = 0; i < count && hit == count; ++i)
                if (objects[i].ready()) hit = i;
            if (hit != count) {
                objects[hit].consume();
                result = WAIT_OBJECT_0 + hit;
                break;
            }
        }
        if (milliseconds == 0) break;
        if (milliseconds == INFINITE) {
            g_kernelChanged.wait(lock);
        } else if (g_kernelChanged.wait_until(lock, deadline) == std::cv_status::timeout &&
                   std::chrono::steady_clock::now() >= deadline) {
            milliseconds = 0;  // one last look, then time out
        }
    }
    for (DWORD i = 0; i < count; ++i)
        if (objects[i].event) --objects[i].event->waiters;
    return result;
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
    return WaitForMultipleObjects(1, &handle, FALSE, milliseconds);
}

void Sleep(DWORD milliseconds) {
    if (milliseconds == INFINITE) {
        for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
    }
    if (milliseconds == 0) {
        std::this_thread::yield();
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

DWORD GetCurrentThreadId() {
    if (t_threadId == 0) t_threadId = g_nextThreadId.fetch_add(1);
    return t_threadId;
}

DWORD GetCurrentProcessId() { return static_cast<DWORD>(tavik::platform::Sys().getpid()); }

namespace {
void threadMain(std::shared_ptr<ThreadObject> self) {
    t_threadId = self->threadId;
    {
        std::unique_lock<std::mutex> lock(g_kernelMutex);
        g_kernelChanged.wait(lock, [&] { return !self->suspended; });
    }
    DWORD code = self->start(self->parameter);
    tavik::platform::DiscardThreadMessageQueue();
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    self->exitCode = code;
    self->finished = true;
    g_kernelChanged.notify_all();
}
}  // namespace

HANDLE CreateThread(void*, std::size_t, LPTHREAD_START_ROUTINE start, LPVOID parameter, DWORD creationFlags,
                    DWORD* threadId) {
    if (start == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto object = std::make_shared<ThreadObject>();
    object->start = start;
    object->parameter = parameter;
    object->suspended = (creationFlags & CREATE_SUSPENDED) != 0;
    object->threadId = g_nextThreadId.fetch_add(1);
    HANDLE h = tavik::platform::NewKernelHandle(tavik::platform::HandleKind::Thread, object);
    try {
        std::thread(threadMain, object).detach();
    } catch (const std::system_error&) {
        CloseHandle(h);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    if (threadId != nullptr) *threadId = object->threadId;
    return h;
}

DWORD ResumeThread(HANDLE h) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    HandleEntry* e = findLocked(h);
    if (e == nullptr || e->kind != tavik::platform::HandleKind::Thread) {
        SetLastError(ERROR_INVALID_HANDLE);
        return static_cast<DWORD>(-1);
    }
    auto thread = std::static_pointer_cast<ThreadObject>(e->object);
    if (!thread->suspended) return 0;
    thread->suspended = false;
    g_kernelChanged.notify_all();
    return 1;
}

BOOL GetExitCodeThread(HANDLE h, DWORD* exitCode) {
    std::lock_guard<std::mutex> lock(g_kernelMutex);
    HandleEntry* e = findLocked(h);
    if (e == nullptr || e->kind != tavik::platform::HandleKind::Thread || exitCode == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    *exitCode = std::static_pointer_cast<ThreadObject>(e->object)->exitCode;
    return TRUE;
}

LONG InterlockedIncrement(LONG volatile* target) { return __atomic_add_fetch(target, 1, __ATOMIC_SEQ_CST); }
LONG InterlockedDecrement(LONG volatile* target) { return __atomic_sub_fetch(target, 1, __ATOMIC_SEQ_CST); }
LONG InterlockedExchange(LONG volatile* target, LONG value) {
    return __atomic_exchange_n(target, value, __ATOMIC_SEQ_CST);
}
