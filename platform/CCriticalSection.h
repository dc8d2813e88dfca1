// The framework's synchronisation objects: CSyncObject, CCriticalSection and CSingleLock.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/CObject.h"

class CSyncObject : public CObject {
    DECLARE_DYNAMIC(CSyncObject)
public:
    ~CSyncObject() override = default;
    // TRUE when acquired within the time limit.
    virtual BOOL Lock(DWORD timeout = INFINITE) = 0;
    virtual BOOL Unlock() = 0;
};

// Re-entrant for its owner, as a Win32 critical section; Unlock must be called once per Lock, by the
// owner (an Unlock by another thread, or one too many, does nothing and answers FALSE).
class CCriticalSection : public CSyncObject {
    DECLARE_DYNAMIC(CCriticalSection)
public:
    CCriticalSection() = default;
    // INFINITE waits; a finite limit is honoured too (the framework ignores it).
    BOOL Lock(DWORD timeout = INFINITE) override;
    BOOL Unlock() override;

private:
    std::mutex m_mutex;  // guards the two fields below
    std::condition_variable m_released;
    std::thread::id m_owner;
    unsigned m_count = 0;
};

// Scoped lock on a sync object; unlocks in its destructor if it holds the lock.
class CSingleLock {
public:
    explicit CSingleLock(CSyncObject* object, BOOL initialLock = FALSE);
    ~CSingleLock();
    CSingleLock(const CSingleLock&) = delete;
    CSingleLock& operator=(const CSingleLock&) = delete;

    BOOL Lock(DWORD timeout = INFINITE);  // TRUE at once when already held
    BOOL Unlock();                        // TRUE also when not held
    BOOL IsLocked() const { return m_bAcquired; }

private:
    CSyncObject* m_pObject;
    BOOL m_bAcquired = FALSE;
};
