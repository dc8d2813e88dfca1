// The file behind a root storage: opening under a lock, and the crash-safe commit (new file beside the
// old one, flushed, renamed over it, directory flushed).
#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "platform/compound/internal/Handles.h"
#include "platform/internal/SystemCalls.h"

namespace tavik::platform {
namespace {

using tavik::platform::Sys;

std::string DirectoryOf(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

constexpr char kTempMark[] = ".~";
constexpr char kTempEnd[] = ".tmp";

std::string TempNameFor(const std::string& path) {
    // Fresh entropy each time: a forked child must not repeat its parent's names.
    std::random_device rd;
    unsigned long long r = (static_cast<unsigned long long>(rd()) << 32) ^ rd() ^
                           static_cast<unsigned long long>(Sys().getpid());
    char suffix[40];
    std::snprintf(suffix, sizeof suffix, "%s%012llx%s", kTempMark, r & 0xFFFFFFFFFFFFull, kTempEnd);
    return path + suffix;
}

// Nothing here starts child processes, so no descriptor is left to one.
int OpenFile(const char* path, int flags, mode_t mode) {
    int fd;
    do fd = Sys().open(path, flags | O_CLOEXEC, mode);
    while (fd < 0 && errno == EINTR);
    return fd;
}

// Temporary files of commits cut short by a crash. Only the lock holder commits, so while we hold the
// exclusive lock every such file is stale.
void RemoveStaleTemps(const std::string& path) {
    std::string dir = DirectoryOf(path);
    std::string base = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    std::string prefix = base + kTempMark;
    DIR* d = Sys().opendir(dir.c_str());
    if (!d) return;
    while (dirent* e = Sys().readdir(d)) {
        std::string name = e->d_name;
        if (name.size() > prefix.size() + 4 && name.compare(0, prefix.size(), prefix) == 0 &&
            name.compare(name.size() - 4, 4, kTempEnd) == 0)
            Sys().unlink((dir + "/" + name).c_str());
    }
    Sys().closedir(d);
}

// Takes the lock and makes sure the path still names the file locked: a commit by the previous holder
// may have replaced it between our open and our lock.
HRESULT LockedOpen(const std::string& path, int lock, int& fdOut) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        int fd = OpenFile(path.c_str(), O_RDONLY, 0);
        if (fd < 0 && errno == ENOENT) {
            struct stat st {};
            return Sys().stat(DirectoryOf(path).c_str(), &st) == 0 ? STG_E_FILENOTFOUND : STG_E_PATHNOTFOUND;
        }
        if (fd < 0) return ErrnoToStg(errno, STG_E_FILENOTFOUND);
        // An opener that denies nothing takes no lock of its own, but must not get past one that denies
        // it reading (an exclusive or writing holder): it tries a shared lock and lets it go.
        if (Sys().flock(fd, (lock == 2 ? LOCK_EX : LOCK_SH) | LOCK_NB) != 0) {
            int e = errno;
            Sys().close(fd);
            return e == EWOULDBLOCK ? STG_E_SHAREVIOLATION : ErrnoToStg(e, STG_E_LOCKVIOLATION);
        }
        if (lock == 0) {
            Sys().flock(fd, LOCK_UN);
            fdOut = fd;
            return S_OK;
        }
        struct stat a {
        }, b{};
        if (Sys().fstat(fd, &a) == 0 && Sys().stat(path.c_str(), &b) == 0 && a.st_ino == b.st_ino &&
            a.st_dev == b.st_dev) {
            fdOut = fd;
            return S_OK;
        }
        Sys().close(fd);
    }
    return STG_E_LOCKVIOLATION;
}

}  // namespace

std::uint64_t NowFileTime() {
    struct timespec ts {};
    Sys().clock_gettime(CLOCK_REALTIME, &ts);
    // 100 ns ticks since 1601-01-01.
    return (static_cast<std::uint64_t>(ts.tv_sec) + 11644473600ull) * 10000000ull +
           static_cast<std::uint64_t>(ts.tv_nsec) / 100;
}

LPOLESTR CopyName(std::u16string_view name) {
    auto* out = static_cast<LPOLESTR>(CoTaskMemAlloc((name.size() + 1) * sizeof(OLECHAR)));
    if (!out) return nullptr;
    std::memcpy(out, name.data(), name.size() * sizeof(OLECHAR));
    out[name.size()] = 0;
    return out;
}

HRESULT RootFile::Commit(const Node& tree) {
    if (!m_writable || m_path.empty()) return STG_E_ACCESSDENIED;
    const auto& ops = Sys();
    std::string temp;
    int fd = -1;
    for (int attempt = 0; attempt < 10 && fd < 0; ++attempt) {
        temp = TempNameFor(m_path);
        fd = OpenFile(temp.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
        if (fd < 0 && errno != EEXIST) return ErrnoToStg(errno, STG_E_CANTSAVE);
    }
    if (fd < 0) return STG_E_CANTSAVE;
    // Locked before it becomes visible under the real name, so no other opener slips in.
    ops.flock(fd, LOCK_EX | LOCK_NB);
    WrittenFile written;
    HRESULT hr = WriteCompoundFile(tree, fd, written);
    if (SUCCEEDED(hr) && ops.fsync(fd) != 0) hr = ErrnoToStg(errno, STG_E_WRITEFAULT);
    if (SUCCEEDED(hr) && m_permissions != 0600) ops.fchmod(fd, m_permissions);
    if (SUCCEEDED(hr) && ops.rename(temp.c_str(), m_path.c_str()) != 0)
        hr = ErrnoToStg(errno, STG_E_WRITEFAULT);
    if (FAILED(hr)) {
        ops.close(fd);
        ops.unlink(temp.c_str());
        return hr;
    }
    // The rename is durable only once the directory is flushed. A failure here cannot be undone (the new
    // file is already in place), and the data itself is on disk, so it is not reported.
    int dir = OpenFile(DirectoryOf(m_path).c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (dir >= 0) {
        ops.fsync(dir);
        ops.close(dir);
    }
    RebindWritten(written, MakeFileStore(fd));
    m_backing = written.backing;
    // What was spilled so far is in the new file now (or belongs to changes not yet committed, which
    // keep the old scratch file alive): start the next one afresh.
    m_scratch.reset();
    m_scratchSectors = 0;
    m_held = 0;
    return S_OK;
}

std::uint64_t& SpillThreshold() {
    // Below this, memory is the faster place: a scratch file makes the bytes cross the page cache twice.
    static std::uint64_t bytes = 256ull << 20;
    return bytes;
}

void RootFile::Spill(StreamContent& c) {
    if (m_path.empty() || !m_writable || m_noScratch || c.backing || c.size != c.data.size()) return;
    if (m_held + c.size <= SpillThreshold()) {
        m_held += c.size;
        return;
    }
    if (!m_scratch) {
        int fd = OpenFile(DirectoryOf(m_path).c_str(), O_TMPFILE | O_RDWR, 0600);
        if (fd < 0) {
            // Unnamed files are not to be had here; memory it is, and no more tries.
            if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) m_noScratch = true;
            return;
        }
        m_scratch = std::make_shared<Backing>();
        m_scratch->store = MakeScratchStore(fd);
        m_scratchSectors = 0;
    }
    const std::uint64_t sectors = (c.size + 511) / 512;
    if (sectors == 0 || m_scratchSectors + sectors >= cfb::MAXREGSECT) return;
    // Sector n lives at (n + 1) * 512, as in a compound file, so the usual chain reading applies.
    if (!m_scratch->store->WriteAt((m_scratchSectors + 1) << 9, c.data.data(), c.data.size())) return;
    c.backing = m_scratch;
    c.start = static_cast<std::uint32_t>(m_scratchSectors);
    c.mini = false;
    c.owner = 0;
    c.chain = Backing::Chain{};
    c.chain.first = c.start;
    c.chain.count = sectors;
    c.resolved = true;
    c.resolveHr = S_OK;
    ByteBuffer().swap(c.data);
    m_scratchSectors += sectors;
}

HRESULT OpenRootFile(const std::string& path, int lock, bool writable, std::shared_ptr<RootFile>& file,
                     NodePtr& tree) {
    if (writable && Sys().access(path.c_str(), W_OK) != 0 && errno == EACCES) return STG_E_ACCESSDENIED;
    int fd = -1;
    HRESULT hr = LockedOpen(path, lock, fd);
    if (FAILED(hr)) return hr;
    struct stat st {};
    if (Sys().fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        Sys().close(fd);
        return STG_E_ACCESSDENIED;
    }
    if (writable && lock == 2) RemoveStaleTemps(path);
    auto f = std::make_shared<RootFile>();
    f->m_path = path;
    f->m_permissions = st.st_mode & 07777;
    f->m_writable = writable;
    hr = ReadCompoundFile(MakeFileStore(fd), f->m_backing, tree);
    if (FAILED(hr)) return hr;
    file = std::move(f);
    return S_OK;
}

HRESULT CreateRootFile(const std::string& path, bool replace, std::shared_ptr<RootFile>& file,
                       NodePtr& tree) {
    int old = OpenFile(path.c_str(), O_RDONLY, 0);
    if (old >= 0) {
        struct stat st {};
        bool isDir = Sys().fstat(old, &st) == 0 && S_ISDIR(st.st_mode);
        bool locked = Sys().flock(old, LOCK_EX | LOCK_NB) != 0;
        Sys().close(old);
        if (isDir) return STG_E_ACCESSDENIED;
        if (!replace) return STG_E_FILEALREADYEXISTS;
        if (locked) return STG_E_SHAREVIOLATION;
    } else if (errno != ENOENT) {
        return ErrnoToStg(errno, STG_E_ACCESSDENIED);
    } else {
        struct stat st {};
        if (Sys().stat(DirectoryOf(path).c_str(), &st) != 0) return STG_E_PATHNOTFOUND;
    }
    auto f = std::make_shared<RootFile>();
    f->m_path = path;
    f->m_writable = true;
    auto root = MakeNode();
    root->name = u"Root Entry";
    root->type = cfb::kTypeRoot;
    HRESULT hr = f->Commit(*root);
    if (FAILED(hr)) return hr;
    file = std::move(f);
    tree = std::move(root);
    return S_OK;
}

}  // namespace tavik::platform
