#include "platform/CCriticalSection.h"
#include "platform/CException.h"

#include <chrono>

#include "platform/CEvent.h"
#include "platform/Kernel.h"

IMPLEMENT_DYNAMIC(CSyncObject, CObject)
IMPLEMENT_DYNAMIC(CCriticalSection, CSyncObject)
IMPLEMENT_DYNAMIC(CEvent, CSyncObject)

// A recursive mutex of our own: the timed recursive mutex of the standard library locks through a call
// that ThreadSanitizer does not see, which makes every later unlock look wrong.
BOOL CCriticalSection::Lock(DWORD timeout) {
    std::thread::id me = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_count > 0 && m_owner == me) {
        ++m_count;
        return TRUE;
    }
    auto isFree = [this] { return m_count == 0; };
    if (timeout == INFINITE) {
        m_released.wait(lock, isFree);
    } else if (!m_released.wait_for(lock, std::chrono::milliseconds(timeout), isFree)) {
        return FALSE;
    }
    m_owner = me;
    m_count = 1;
    return TRUE;
}

BOOL CCriticalSection::Unlock() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_count == 0 || m_owner != std::this_thread::get_id()) return FALSE;
    if (--m_count == 0) {
        m_owner = std::thread::id();
        m_released.notify_one();
    }
    return TRUE;
}

CSingleLock::CSingleLock(CSyncObject* object, BOOL initialLock) : m_pObject(object) {
    if (initialLock) Lock();
}

CSingleLock::~CSingleLock() { Unlock(); }

BOOL CSingleLock::Lock(DWORD timeout) {
    if (m_bAcquired) return TRUE;
    if (m_pObject == nullptr) return FALSE;
    m_bAcquired = m_pObject->Lock(timeout);
    return m_bAcquired;
}

BOOL CSingleLock::Unlock() {
    if (m_bAcquired && m_pObject != nullptr) m_bAcquired = !m_pObject->Unlock();
    return !m_bAcquired;
}

CEvent::CEvent(BOOL initiallyOwn, BOOL manualReset, LPCTSTR name, void* security)
    : m_hObject(CreateEvent(security, manualReset, initiallyOwn, name)) {
    if (m_hObject == nullptr) AfxThrowMemoryException();
}

CEvent::~CEvent() { CloseHandle(m_hObject); }

BOOL CEvent::SetEvent() { return ::SetEvent(m_hObject); }
BOOL CEvent::ResetEvent() { return ::ResetEvent(m_hObject); }
BOOL CEvent::PulseEvent() { return ::PulseEvent(m_hObject); }

BOOL CEvent::Lock(DWORD timeout) { return WaitForSingleObject(m_hObject, timeout) == WAIT_OBJECT_0; }
