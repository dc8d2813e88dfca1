#include "platform/registry/internal/WriteTurn.h"

#include <fcntl.h>

#include <cerrno>
#include <thread>

#include "platform/internal/SystemCalls.h"

namespace tavik::platform {

namespace {

// The byte held by the writer whose turn it is, and the byte waiting writers share.
constexpr int kTurn = 0;
constexpr int kWaiting = 1;

void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

}  // namespace

void WriteTurn::Open(const std::string& path) {
    Close();
    m_fd = Sys().open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
}

void WriteTurn::Close() {
    Give();
    if (m_fd >= 0) Sys().close(m_fd);
    m_fd = -1;
}

// Locks of the open file, not of the process, so that closing another descriptor of the file (as
// SQLite's own code may) never drops them.
WriteTurn::Lock WriteTurn::Set(int byte, short type) {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = byte;
    range.l_len = 1;
    if (Sys().fcntl_lock(m_fd, F_OFD_SETLK, &range) == 0) return Lock::kGot;
    return errno == EAGAIN || errno == EACCES || errno == EINTR ? Lock::kBusy : Lock::kBroken;
}

bool WriteTurn::Take(std::chrono::steady_clock::time_point deadline) {
    if (m_fd < 0 || m_held) return true;
    const auto wait = [&](int byte, short type) {
        for (;;) {
            Lock got = Set(byte, type);
            if (got != Lock::kBusy) return got;
            if (std::chrono::steady_clock::now() >= deadline) return Lock::kBusy;
            Pause();
        }
    };
    // Those who said they were waiting go first: the waiting byte is ours alone only once they have
    // their turns. Keeping it, shared, says that we wait now.
    Lock got = wait(kWaiting, F_WRLCK);
    if (got == Lock::kGot) {
        got = Set(kWaiting, F_RDLCK);
        if (got == Lock::kGot) got = wait(kTurn, F_WRLCK);
        Set(kWaiting, F_UNLCK);
    }
    m_held = got == Lock::kGot;
    return got != Lock::kBusy;
}

void WriteTurn::Give() {
    if (!m_held) return;
    Set(kTurn, F_UNLCK);
    m_held = false;
}

}  // namespace tavik::platform
