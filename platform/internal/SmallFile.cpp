#include "platform/internal/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/internal/SystemCalls.h"

namespace tavik::platform {

bool ReadSmallFile(const std::string& path, std::string& bytes, size_t limit) {
    bytes.clear();
    int fd = Sys().open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return false;
    struct stat st {};
    int failure = 0;
    if (Sys().fstat(fd, &st) != 0)
        failure = errno;
    else if (!S_ISREG(st.st_mode))
        failure = EINVAL;
    else if (static_cast<unsigned long long>(st.st_size) > limit)
        failure = EFBIG;
    // The size is a hint: the file may change while it is read, so read to its end, within the limit.
    if (!failure) bytes.resize(static_cast<size_t>(st.st_size) + 1);
    size_t done = 0;
    while (!failure) {
        if (done == bytes.size()) {
            if (bytes.size() > limit) {
                failure = EFBIG;
                break;
            }
            bytes.resize(std::min(limit + 1, bytes.size() * 2));
        }
        ssize_t n = Sys().read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) failure = errno;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    Sys().close(fd);
    if (failure) {
        bytes.clear();
        errno = failure;
        return false;
    }
    bytes.resize(done);
    return true;
}

}  // namespace tavik::platform
