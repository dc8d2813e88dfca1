// The framework's threads: user-interface threads (InitInstance, a message loop in Run, ExitInstance) and
// worker threads (a function). The CWinThread object is deleted when its thread ends unless
// m_bAutoDelete is cleared (start it CREATE_SUSPENDED, clear the flag, ResumeThread); m_hThread is
// signalled when the thread has ended and stays valid while the object lives.
#pragma once

#include "platform/CObject.h"
#include "platform/Kernel.h"
#include "platform/WindowMessages.h"

using AFX_THREADPROC = UINT (*)(LPVOID parameter);

class CWinThread : public CObject {
    DECLARE_DYNAMIC(CWinThread)
public:
    // A user-interface thread (derived classes).
    CWinThread();
    // A worker thread running proc(param).
    CWinThread(AFX_THREADPROC proc, LPVOID param);
    ~CWinThread() override;  // closes m_hThread
    CWinThread(const CWinThread&) = delete;
    CWinThread& operator=(const CWinThread&) = delete;

    // Starts the thread (suspended with CREATE_SUSPENDED); FALSE when it cannot be started. The call
    // returns once the thread's message queue exists, so PostThreadMessage(m_nThreadID, ...) works.
    BOOL CreateThread(DWORD createFlags = 0, UINT stackSize = 0, void* security = nullptr);
    DWORD ResumeThread();
    BOOL PostThreadMessage(UINT message, WPARAM wParam, LPARAM lParam);

    // FALSE ends the thread at once (ExitInstance is still called, as the framework does).
    virtual BOOL InitInstance();
    // Runs the message loop until WM_QUIT, then returns ExitInstance().
    virtual int Run();
    // The thread's exit code: the WM_QUIT's wParam by default.
    virtual int ExitInstance();
    // TRUE when the message was handled and must not be dispatched.
    virtual BOOL PreTranslateMessage(MSG* msg);
    // Gets and dispatches one message; FALSE on WM_QUIT.
    virtual BOOL PumpMessage();
    // Deletes the object when m_bAutoDelete is set.
    virtual void Delete();

    HWND GetMainWnd() const { return m_pMainWnd; }

    // A window handle here, not a window object. Destroying it ends the message loop (WM_QUIT 0).
    HWND m_pMainWnd = nullptr;
    BOOL m_bAutoDelete = TRUE;
    HANDLE m_hThread = nullptr;
    DWORD m_nThreadID = 0;

protected:
    MSG m_msgCur;  // the message being handled by Run

private:
    static DWORD ThreadEntry(LPVOID self);
    AFX_THREADPROC m_pfnThreadProc = nullptr;
    LPVOID m_pThreadParams = nullptr;
    HANDLE m_hStarted = nullptr;
    HANDLE m_hResume = nullptr;
    bool m_bStartSuspended = false;
};

// Creates the object by run-time class (it must be DECLARE_DYNCREATE and derive from CWinThread) and
// starts it; null on failure. priority and stackSize are ignored.
CWinThread* AfxBeginThread(CRuntimeClass* threadClass, int priority = 0, UINT stackSize = 0,
                           DWORD createFlags = 0, void* security = nullptr);
CWinThread* AfxBeginThread(AFX_THREADPROC proc, LPVOID param, int priority = 0, UINT stackSize = 0,
                           DWORD createFlags = 0, void* security = nullptr);
// The CWinThread of the calling thread; null on a thread not started through it.
CWinThread* AfxGetThread();
