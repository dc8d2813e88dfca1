// Kernel objects behind HANDLEs (events, threads), waits, the tick count, Sleep and thread ids.
// A handle stays valid until CloseHandle; closing it while another thread waits on it is safe (the wait
// finishes normally or times out).
#pragma once

#include "platform/WinTypes.h"

// Events. The security attributes are ignored; a named event is process-local (two CreateEvent calls
// with the same name return handles of the same event, as Windows does within one session).
// Null on failure (GetLastError tells why).
HANDLE CreateEvent(void* security, BOOL manualReset, BOOL initialState, LPCTSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
// Releases the waiters present now (all for a manual-reset event, one for auto-reset), then resets.
BOOL PulseEvent(HANDLE event);
// FALSE with ERROR_INVALID_HANDLE for a handle that is not open.
BOOL CloseHandle(HANDLE handle);

// 0 tests without waiting; INFINITE waits for ever. WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED (with
// ERROR_INVALID_HANDLE) for a handle that is not open. A satisfied wait on an auto-reset event resets it.
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
// waitAll FALSE: WAIT_OBJECT_0 + index of the first signalled object. waitAll TRUE: WAIT_OBJECT_0 when
// all are signalled at once. At most 64 handles.
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;

// Milliseconds since start-up, wrapping at 2^32; pinnable (platform/Clock.h).
DWORD GetTickCount();
void Sleep(DWORD milliseconds);
// A small non-zero number unique to each thread of the process (never reused).
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();

// Threads, as CreateThread. The routine runs on a new thread; the handle is signalled when it has
// returned; GetExitCodeThread gives STILL_ACTIVE before that, then the routine's result.
using LPTHREAD_START_ROUTINE = DWORD (*)(LPVOID parameter);
constexpr DWORD CREATE_SUSPENDED = 0x4;
constexpr DWORD STILL_ACTIVE = 259;
HANDLE CreateThread(void* security, std::size_t stackSize, LPTHREAD_START_ROUTINE start, LPVOID parameter,
                    DWORD creationFlags, DWORD* threadId);
// Starts a thread created suspended; returns the previous suspend count (1), 0 if it was running, or
// (DWORD)-1 for a handle that is not a thread. Suspending a running thread is not supported.
DWORD ResumeThread(HANDLE thread);
BOOL GetExitCodeThread(HANDLE thread, DWORD* exitCode);

// Interlocked arithmetic on 32-bit values; each returns the new value (Exchange: the old one).
LONG InterlockedIncrement(LONG volatile* target);
LONG InterlockedDecrement(LONG volatile* target);
LONG InterlockedExchange(LONG volatile* target, LONG value);

constexpr LONG ERROR_INVALID_THREAD_ID = 1444;
