// Socket waits that a termination event can cut short. A client blocked on a silent server, or on a
// connect nobody answers, must still stop within a fraction of a second when its host gives up, so the
// wait runs in short slices and the event is tested between them.
#pragma once

#include <chrono>

#include "platform/Winsock.h"

namespace tavik::lib {

using Deadline = std::chrono::steady_clock::time_point;

// Now plus seconds (negative counts as 0).
Deadline DeadlineAfter(int seconds);

// Longest spell between two looks at the stop event.
constexpr std::chrono::milliseconds kStopSlice{100};

// WaitUntil and ConnectUntil results beside 0, 1 and SOCKET_ERROR.
constexpr int kStopped = -2;

// Waits until s is ready (SOCKET_WAIT_READ or SOCKET_WAIT_WRITE) or the deadline passes. Returns 1 ready,
// 0 deadline passed, kStopped when stopEvent (may be null) was found signalled, SOCKET_ERROR when the
// wait failed (the last error says why). Without an event it is one wait for the whole time.
int WaitUntil(SOCKET s, int what, Deadline deadline, void* stopEvent);

// Connects s (blocking before and after) unless the deadline passes first. Returns 0 connected,
// kStopped, or SOCKET_ERROR with the last error set (WSAETIMEDOUT at the deadline, the connect's own code
// when it failed).
int ConnectUntil(SOCKET s, const sockaddr* to, Deadline deadline, void* stopEvent);

}  // namespace tavik::lib
