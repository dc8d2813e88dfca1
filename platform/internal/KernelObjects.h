// The process's handle table and the glue between kernel objects of different families.
// Platform-internal.
#pragma once

#include <memory>

#include "platform/WinTypes.h"

struct HWND__;

namespace tavik::platform {

enum class HandleKind { Event, Thread, FileMapping };

// A new handle that keeps the object alive until CloseHandle. Handle values are never reused and never
// collide with CFile handles.
HANDLE NewKernelHandle(HandleKind kind, std::shared_ptr<void> object);
// Null when the handle is not open or is of another kind.
std::shared_ptr<void> KernelObjectOfHandle(HANDLE handle, HandleKind kind);

// Ends the calling thread's message queue: destroys its windows and answers pending sends with 0.
// Threads started by CreateThread call it before their handle is signalled; other threads at exit.
void DiscardThreadMessageQueue();

// The calling thread's main-window member (CWinThread::m_pMainWnd), or null. Destroying that window
// clears it and posts WM_QUIT to the thread, as the framework does for a thread's main window.
void SetThreadMainWindowSlot(HWND__** slot);

}  // namespace tavik::platform
