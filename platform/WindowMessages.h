// Windows without a screen: message procedures bound to the thread that creates them, per-thread message
// queues, sent and posted messages, timers and a modal loop.
//
// A thread's queue exists from its first call of CreateMessageWindow, GetMessage, PeekMessage or
// EnsureMessageQueue. Messages sent to a window from another thread are delivered only while the window's
// thread is inside GetMessage, PeekMessage, WaitMessage, a modal loop or a cross-thread SendMessage of its
// own, as Windows does. When a thread ends, its windows are destroyed and its queue discarded.
#pragma once

#include "platform/Kernel.h"

struct HWND__;
using HWND = HWND__*;
using WNDPROC = LRESULT (*)(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);
using INT_PTR = std::intptr_t;

struct POINT {
    LONG x = 0;
    LONG y = 0;
};

struct MSG {
    HWND hwnd = nullptr;
    UINT message = 0;
    WPARAM wParam = 0;
    LPARAM lParam = 0;
    DWORD time = 0;  // GetTickCount when queued
    POINT pt;
};

constexpr UINT WM_NULL = 0x0000;
constexpr UINT WM_CREATE = 0x0001;
constexpr UINT WM_DESTROY = 0x0002;
constexpr UINT WM_CLOSE = 0x0010;
constexpr UINT WM_QUIT = 0x0012;
constexpr UINT WM_SHOWWINDOW = 0x0018;
constexpr UINT WM_NCDESTROY = 0x0082;
constexpr UINT WM_INITDIALOG = 0x0110;
constexpr UINT WM_COMMAND = 0x0111;
constexpr UINT WM_TIMER = 0x0113;
constexpr UINT WM_USER = 0x0400;
constexpr UINT WM_APP = 0x8000;

constexpr int IDOK = 1;
constexpr int IDCANCEL = 2;
constexpr int IDABORT = 3;
constexpr int IDRETRY = 4;
constexpr int IDIGNORE = 5;
constexpr int IDYES = 6;
constexpr int IDNO = 7;

constexpr UINT PM_NOREMOVE = 0x0000;
constexpr UINT PM_REMOVE = 0x0001;

constexpr int SW_HIDE = 0;
constexpr int SW_SHOWNORMAL = 1;
constexpr int SW_SHOW = 5;

constexpr int GWLP_WNDPROC = -4;
constexpr int GWLP_USERDATA = -21;

constexpr LONG ERROR_INVALID_WINDOW_HANDLE = 1400;

// A window of the calling thread with the given procedure. `user` is returned by
// GetWindowLongPtr(hwnd, GWLP_USERDATA). The procedure gets WM_CREATE (lParam = user) before this
// returns; a WM_CREATE result of -1 destroys the window again and gives null.
HWND CreateMessageWindow(WNDPROC proc, void* user = nullptr);
// Sends WM_DESTROY then WM_NCDESTROY, removes the window's timers, and answers 0 to every message still
// being sent to it from other threads. Only the window's own thread may destroy it (FALSE otherwise).
BOOL DestroyWindow(HWND hwnd);
BOOL IsWindow(HWND hwnd);
// Hidden at creation. ShowWindow sends WM_SHOWWINDOW (wParam TRUE/FALSE) when the visibility changes,
// and returns the previous visibility.
BOOL ShowWindow(HWND hwnd, int command);
BOOL IsWindowVisible(HWND hwnd);
LONG_PTR GetWindowLongPtr(HWND hwnd, int index);
LONG_PTR SetWindowLongPtr(HWND hwnd, int index, LONG_PTR value);  // returns the previous value
DWORD GetWindowThreadProcessId(HWND hwnd, DWORD* processId);
// WM_CLOSE destroys the window; everything else answers 0.
LRESULT DefWindowProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);

// On the window's thread, calls the procedure at once. From another thread, queues the message and
// blocks until the window's thread has handled it, returning its result, while still handling messages
// sent to the calling thread (so two threads sending to each other do not deadlock). 0 for a window
// that is not (or no longer) a window.
LRESULT SendMessage(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);
// As SendMessage, but gives up after `timeout` ms: 0 with ERROR_TIMEOUT (the message is still handled
// later, its answer dropped) or ERROR_INVALID_WINDOW_HANDLE; non-zero with *result set on success. The
// flags (SMTO_) change nothing.
LRESULT SendMessageTimeout(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam, UINT flags, UINT timeout,
                           DWORD_PTR* result);
constexpr UINT SMTO_NORMAL = 0x0;
constexpr UINT SMTO_BLOCK = 0x1;
constexpr UINT SMTO_ABORTIFHUNG = 0x2;
constexpr LONG ERROR_TIMEOUT = 1460;
// Queues the message and returns. A null hwnd posts to the calling thread. FALSE with
// ERROR_INVALID_WINDOW_HANDLE for a window that does not exist.
BOOL PostMessage(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);
// FALSE with ERROR_INVALID_THREAD_ID when the thread has no queue.
BOOL PostThreadMessage(DWORD threadId, UINT message, WPARAM wParam, LPARAM lParam);
// WM_QUIT (wParam = exitCode) comes out of the queue once no posted message is left.
void PostQuitMessage(int exitCode);

// Waits for a posted message or timer of the calling thread, handling sent messages meanwhile.
// 0 for WM_QUIT, -1 for a filter window that is not a window, otherwise non-zero. hwnd filters by
// window (null: all messages of the thread); min/max filter by number (both 0: all).
BOOL GetMessage(MSG* msg, HWND hwnd, UINT filterMin, UINT filterMax);
// As GetMessage without waiting: FALSE when nothing is there. PM_NOREMOVE leaves the message queued.
BOOL PeekMessage(MSG* msg, HWND hwnd, UINT filterMin, UINT filterMax, UINT removeFlags);
// Waits until a message (posted, sent or timer) is there for the calling thread.
BOOL WaitMessage();
// Nothing to translate without a keyboard; FALSE.
BOOL TranslateMessage(const MSG* msg);
// Calls the procedure of msg->hwnd (0 when there is no such window or hwnd is null).
LRESULT DispatchMessage(const MSG* msg);
// Creates the calling thread's queue now (a thread that will receive PostThreadMessage calls it before
// announcing its id).
void EnsureMessageQueue();

// A timer of the window's thread: WM_TIMER (wParam = id, lParam = 0) every `milliseconds` (at least
// 1), at most one pending at a time, after posted messages. Returns the id (non-zero) or 0 for a
// window that is not a window. Setting an existing id restarts it. A null hwnd makes a thread timer with
// a fresh id. The timer function must be null.
UINT_PTR SetTimer(HWND hwnd, UINT_PTR id, UINT milliseconds, void* timerFunc);
BOOL KillTimer(HWND hwnd, UINT_PTR id);

// Pumps the calling thread's messages until EndModalLoop(hwnd, result) (from the window's procedure
// or any thread), and returns the result. Returns -1 when the window is destroyed first or WM_QUIT
// arrives (which is posted again for the outer loop).
INT_PTR RunModalLoop(HWND hwnd);
// FALSE for a window that is not a window; does nothing when no modal loop runs for it (the result is
// kept for the next loop).
BOOL EndModalLoop(HWND hwnd, INT_PTR result);
// Win32's name for it.
inline BOOL EndDialog(HWND hwnd, INT_PTR result) { return EndModalLoop(hwnd, result); }
