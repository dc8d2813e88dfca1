// The framework's event object: a kernel event (platform/Kernel.h) whose handle the object owns.
#pragma once

#include "platform/CCriticalSection.h"

class CEvent : public CSyncObject {
    DECLARE_DYNAMIC(CEvent)
public:
    // initiallyOwn TRUE creates the event signalled. The name is process-local (see CreateEvent).
    explicit CEvent(BOOL initiallyOwn = FALSE, BOOL manualReset = FALSE, LPCTSTR name = nullptr,
                    void* security = nullptr);
    ~CEvent() override;
    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    BOOL SetEvent();
    BOOL ResetEvent();
    BOOL PulseEvent();
    // Waits for the event (auto-reset events reset on success).
    BOOL Lock(DWORD timeout = INFINITE) override;
    // Nothing to release for an event; TRUE.
    BOOL Unlock() override { return TRUE; }

    operator HANDLE() const { return m_hObject; }
    HANDLE m_hObject;
};
