#include "platform/CCriticalSection.h"
#include "platform/CException.h"

#include <chrono>

#include "platform/CEvent.h"
#include "platform/Kernel.h"

IMPLEMENT_DYNAMIC(CSyncObject, CObject)
IMPLEMENT_DYNAMIC(CCriticalSection, CSyncObject)
IMPLEMENT_DYNAMIC(CEvent, CSyncObject)

BOOL CCriticalSection::Lock(DWORD timeout) {
    if (timeout == INFINITE) {
        m_mutex.lock();
        return TRUE;
    }
    return m_mutex.try_lock_for(std::chrono::milliseconds(timeout)) ? TRUE : FALSE;
}

BOOL CCriticalSection::Unlock() {
    m_mutex.unlock();
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
