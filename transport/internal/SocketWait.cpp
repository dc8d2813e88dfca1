#include "transport/internal/SocketWait.h"

#include <algorithm>

#include "platform/Kernel.h"

namespace tavik::lib {

namespace {

using Clock = std::chrono::steady_clock;

bool Signalled(void* event) { return event != nullptr && WaitForSingleObject(event, 0) == WAIT_OBJECT_0; }

}  // namespace

Deadline DeadlineAfter(int seconds) { return Clock::now() + std::chrono::seconds(std::max(seconds, 0)); }

int WaitUntil(SOCKET s, int what, Deadline deadline, void* stopEvent) {
    for (;;) {
        if (Signalled(stopEvent)) return kStopped;
        auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
        if (left.count() < 0) left = std::chrono::microseconds(0);
        const bool last = stopEvent == nullptr || left <= kStopSlice;
        const auto slice = last ? left : std::chrono::microseconds(kStopSlice);
        const int ready = WaitForSocket(s, what, static_cast<long>(slice.count() / 1000000),
                                        static_cast<long>(slice.count() % 1000000));
        if (ready != 0) return ready;
        if (last) return Signalled(stopEvent) ? kStopped : 0;
    }
}

int ConnectUntil(SOCKET s, const sockaddr* to, Deadline deadline, void* stopEvent) {
    // A blocking connect that succeeds leaves the last error alone; so does this one, whose "would
    // block" on the way is no failure (later time-outs report the last error).
    const int previous = WSAGetLastError();
    ULONG on = 1;
    if (ioctlsocket(s, FIONBIO, &on) == SOCKET_ERROR) return SOCKET_ERROR;
    int result = 0;
    int error = 0;
    if (connect(s, to, sizeof(sockaddr_in)) == SOCKET_ERROR) {
        error = WSAGetLastError();
        if (error == WSAEWOULDBLOCK) {
            error = 0;
            const int ready = WaitUntil(s, SOCKET_WAIT_WRITE, deadline, stopEvent);
            int length = sizeof error;
            if (ready == kStopped)
                result = kStopped;
            else if (ready == 0)
                error = WSAETIMEDOUT;
            else if (ready == SOCKET_ERROR)
                error = WSAGetLastError();
            else if (getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &length) ==
                     SOCKET_ERROR)
                error = WSAGetLastError();
        }
    }
    ULONG off = 0;
    ioctlsocket(s, FIONBIO, &off);
    WSASetLastError(error != 0 ? error : previous);
    if (result == kStopped) return kStopped;
    return error != 0 ? SOCKET_ERROR : 0;
}

}  // namespace tavik::lib
