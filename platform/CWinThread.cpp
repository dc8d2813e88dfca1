#include "platform/CWinThread.h"

#include "platform/internal/KernelObjects.h"

IMPLEMENT_DYNAMIC(CWinThread, CObject)

namespace {
thread_local CWinThread* t_currentThread = nullptr;

}  // namespace

CWinThread::CWinThread() { m_msgCur = MSG{}; }

CWinThread::CWinThread(AFX_THREADPROC proc, LPVOID param) : CWinThread() {
    m_pfnThreadProc = proc;
    m_pThreadParams = param;
}

CWinThread::~CWinThread() {
    if (m_hThread != nullptr) CloseHandle(m_hThread);
    if (m_hResume != nullptr) CloseHandle(m_hResume);
}

CWinThread* AfxGetThread() { return t_currentThread; }

DWORD CWinThread::ThreadEntry(LPVOID self) {
    auto* thread = static_cast<CWinThread*>(self);
    t_currentThread = thread;
    tavik::platform::SetThreadMainWindowSlot(&thread->m_pMainWnd);
    EnsureMessageQueue();
    HANDLE resume = thread->m_bStartSuspended ? thread->m_hResume : nullptr;
    SetEvent(thread->m_hStarted);  // the creator may go on (and may delete nothing yet: we are not done)
    if (resume != nullptr) WaitForSingleObject(resume, INFINITE);

    int code;
    if (thread->m_pfnThreadProc != nullptr) {
        code = static_cast<int>(thread->m_pfnThreadProc(thread->m_pThreadParams));
    } else if (!thread->InitInstance()) {
        code = thread->ExitInstance();
    } else {
        code = thread->Run();
    }
    // Windows go before the object: their procedures may still reach it.
    tavik::platform::SetThreadMainWindowSlot(nullptr);
    tavik::platform::DiscardThreadMessageQueue();
    t_currentThread = nullptr;
    thread->Delete();
    return static_cast<DWORD>(code);
}

BOOL CWinThread::CreateThread(DWORD createFlags, UINT, void*) {
    if (m_hThread != nullptr) return FALSE;
    m_bStartSuspended = (createFlags & CREATE_SUSPENDED) != 0;
    m_hStarted = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    if (m_bStartSuspended) m_hResume = CreateEvent(nullptr, TRUE, FALSE, nullptr);
    DWORD id = 0;
    // Kernel-suspended until the members below are set: the thread may delete this object soon after.
    HANDLE h = ::CreateThread(nullptr, 0, &CWinThread::ThreadEntry, this, CREATE_SUSPENDED, &id);
    if (h == nullptr) {
        CloseHandle(m_hStarted);
        m_hStarted = nullptr;
        return FALSE;
    }
    m_hThread = h;
    m_nThreadID = id;
    // Once resumed, a thread that is not suspended may finish and delete this object at any moment,
    // so the event is copied first and no member is touched afterwards.
    HANDLE started = m_hStarted;
    ::ResumeThread(h);
    // Wait until the thread's queue exists.
    WaitForSingleObject(started, INFINITE);
    CloseHandle(started);
    return TRUE;
}

DWORD CWinThread::ResumeThread() {
    if (m_hResume == nullptr) return 0;
    SetEvent(m_hResume);
    return 1;
}

BOOL CWinThread::PostThreadMessage(UINT message, WPARAM wParam, LPARAM lParam) {
    return ::PostThreadMessage(m_nThreadID, message, wParam, lParam);
}

BOOL CWinThread::InitInstance() { return FALSE; }

int CWinThread::Run() {
    while (PumpMessage()) {
    }
    return ExitInstance();
}

int CWinThread::ExitInstance() { return static_cast<int>(m_msgCur.wParam); }

BOOL CWinThread::PreTranslateMessage(MSG*) { return FALSE; }

BOOL CWinThread::PumpMessage() {
    if (!GetMessage(&m_msgCur, nullptr, 0, 0)) return FALSE;
    if (!PreTranslateMessage(&m_msgCur)) {
        TranslateMessage(&m_msgCur);
        DispatchMessage(&m_msgCur);
    }
    return TRUE;
}

void CWinThread::Delete() {
    if (m_bAutoDelete) delete this;
}

CWinThread* AfxBeginThread(CRuntimeClass* threadClass, int, UINT, DWORD createFlags, void*) {
    if (threadClass == nullptr || !threadClass->IsDerivedFrom(RUNTIME_CLASS(CWinThread))) return nullptr;
    auto* thread = static_cast<CWinThread*>(threadClass->CreateObject());
    if (thread == nullptr) return nullptr;
    if (!thread->CreateThread(createFlags)) {
        delete thread;
        return nullptr;
    }
    return thread;
}

CWinThread* AfxBeginThread(AFX_THREADPROC proc, LPVOID param, int, UINT, DWORD createFlags, void*) {
    if (proc == nullptr) return nullptr;
    auto* thread = new CWinThread(proc, param);
    if (!thread->CreateThread(createFlags)) {
        delete thread;
        return nullptr;
    }
    return thread;
}
