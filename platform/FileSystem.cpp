#include "platform/FileSystem.h"

#include <fcntl.h>
#include <fnmatch.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/internal/OsErrors.h"
#include "platform/internal/SystemCalls.h"

namespace {

using tavik::platform::Sys;

void copyCut(char* out, size_t size, const std::string& text) {
    if (!out) return;
    size_t n = std::min(text.size(), size - 1);
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

DWORD errnoToWin32(int err) { return static_cast<DWORD>(tavik::platform::Win32ErrorFromErrno(err)); }

std::mutex g_appDirLock;
std::string g_appDir;

FILETIME toFileTime(const struct timespec& ts) {
    // 100 ns ticks since 1601-01-01.
    ULONGLONG ticks = (static_cast<ULONGLONG>(ts.tv_sec) + 11644473600ULL) * 10000000ULL +
                      static_cast<ULONGLONG>(ts.tv_nsec) / 100;
    return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

void fillFindData(const std::string& fullPath, const std::string& name, const struct stat& st,
                  WIN32_FIND_DATA* data) {
    std::memset(data, 0, sizeof *data);
    data->dwFileAttributes = S_ISDIR(st.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
    if (Sys().access(fullPath.c_str(), W_OK) != 0 && !S_ISDIR(st.st_mode))
        data->dwFileAttributes = (data->dwFileAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_READONLY;
    data->ftCreationTime = toFileTime(st.st_ctim);
    data->ftLastAccessTime = toFileTime(st.st_atim);
    data->ftLastWriteTime = toFileTime(st.st_mtim);
    ULONGLONG size = S_ISDIR(st.st_mode) ? 0 : static_cast<ULONGLONG>(st.st_size);
    data->nFileSizeHigh = static_cast<DWORD>(size >> 32);
    data->nFileSizeLow = static_cast<DWORD>(size);
    copyCut(data->cFileName, sizeof data->cFileName, name);
}

// A running search: the remaining matches, already listed when the search started.
struct FindState {
    std::string directory;
    std::vector<std::string> names;
    size_t next = 0;
};

}  // namespace

void _splitpath(const char* path, char* drive, char* dir, char* fname, char* ext) {
    std::string p = path ? path : "";
    if (drive) drive[0] = '\0';
    size_t slash = p.rfind('/');
    std::string directory = slash == std::string::npos ? std::string() : p.substr(0, slash + 1);
    std::string rest = slash == std::string::npos ? p : p.substr(slash + 1);
    size_t dot = rest.rfind('.');
    std::string title = dot == std::string::npos ? rest : rest.substr(0, dot);
    std::string extension = dot == std::string::npos ? std::string() : rest.substr(dot);
    copyCut(dir, _MAX_DIR, directory);
    copyCut(fname, _MAX_FNAME, title);
    copyCut(ext, _MAX_EXT, extension);
}

void _makepath(char* path, const char* drive, const char* dir, const char* fname, const char* ext) {
    if (!path) return;
    std::string out;
    if (drive && *drive) out += drive;
    if (dir && *dir) {
        out += dir;
        if (out.back() != '/') out += '/';
    }
    if (fname) out += fname;
    if (ext && *ext) {
        if (*ext != '.') out += '.';
        out += ext;
    }
    copyCut(path, _MAX_PATH, out);
}

DWORD GetTempPath(DWORD bufferLength, char* buffer) {
    const char* env = std::getenv("TMPDIR");
    std::string dir = env && *env ? env : "/tmp";
    if (dir.back() != '/') dir += '/';
    if (!buffer || bufferLength < dir.size() + 1) return static_cast<DWORD>(dir.size() + 1);
    std::memcpy(buffer, dir.c_str(), dir.size() + 1);
    return static_cast<DWORD>(dir.size());
}

UINT GetTempFileName(const char* pathName, const char* prefix, UINT unique, char* tempFileName) {
    if (!pathName || !tempFileName) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string base = pathName;
    if (!base.empty() && base.back() != '/') base += '/';
    base.append(prefix ? prefix : "", 0, 3);
    if (base.size() + 4 + 4 >= MAX_PATH) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto nameFor = [&](UINT n) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%X", n);
        return base + hex + ".tmp";
    };
    if (unique != 0) {
        unique &= 0xFFFF;
        copyCut(tempFileName, MAX_PATH, nameFor(unique));
        return unique;
    }
    // Windows starts from the clock and walks the 16-bit space until a name is free.
    static std::atomic<UINT> counter{0};
    struct timespec ts {};
    Sys().clock_gettime(CLOCK_MONOTONIC, &ts);
    auto now = static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
    UINT start = static_cast<UINT>((now ^ (now >> 16)) + counter.fetch_add(1)) & 0xFFFF;
    for (UINT i = 0; i < 0x10000; ++i) {
        UINT n = (start + i) & 0xFFFF;
        if (n == 0) continue;
        std::string name = nameFor(n);
        int fd = Sys().open(name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
        if (fd >= 0) {
            Sys().close(fd);
            copyCut(tempFileName, MAX_PATH, name);
            return n;
        }
        if (errno != EEXIST) {
            SetLastError(errno == ENOENT ? ERROR_DIRECTORY : errnoToWin32(errno));
            return 0;
        }
    }
    SetLastError(ERROR_FILE_EXISTS);
    return 0;
}

void TavikSetApplicationDirectory(const char* directory) {
    std::lock_guard<std::mutex> lock(g_appDirLock);
    g_appDir = directory ? directory : "";
}

int _fileno(FILE* stream) { return stream ? ::fileno(stream) : -1; }

int _isatty(int fd) {
    struct stat st;
    return fd >= 0 && Sys().fstat(fd, &st) == 0 && S_ISCHR(st.st_mode) ? 1 : 0;
}

std::string TavikDataDirectory() {
    if (const char* env = std::getenv("TAVIK_DATA"); env && *env) return env;
    // A relative XDG directory is to be ignored.
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/')
        return std::string(xdg) + "/tavikmail";
    const char* home = std::getenv("HOME");
    if (!home || !*home) {
        const passwd* pw = Sys().getpwuid(Sys().getuid());
        home = pw ? pw->pw_dir : nullptr;
    }
    return home && *home ? std::string(home) + "/.local/share/tavikmail" : std::string();
}

BOOL TavikUseDataDirectory(const char* directory) {
    if (!directory || !*directory) {
        SetLastError(ERROR_PATH_NOT_FOUND);
        return FALSE;
    }
    std::string dir = directory;
    if (dir[0] != '/') {
        char cwd[4096];
        if (!Sys().getcwd(cwd, sizeof cwd)) {
            SetLastError(errnoToWin32(errno));
            return FALSE;
        }
        dir = std::string(cwd) + "/" + dir;
    }
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/') continue;
        if (Sys().mkdir(dir.substr(0, pos).c_str(), 0700) != 0 && errno != EEXIST) {
            SetLastError(errnoToWin32(errno));
            return FALSE;
        }
    }
    struct stat st;
    if (Sys().stat(dir.c_str(), &st) != 0) {
        SetLastError(errnoToWin32(errno));
        return FALSE;
    }
    if (!S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_DIRECTORY);
        return FALSE;
    }
    TavikSetApplicationDirectory(dir.c_str());
    return TRUE;
}

DWORD GetModuleFileName(HMODULE module, char* fileName, DWORD size) {
    std::string exe;
    char buf[4096];
    ssize_t n = Sys().readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n > 0) exe.assign(buf, static_cast<size_t>(n));
    {
        std::lock_guard<std::mutex> lock(g_appDirLock);
        if (!g_appDir.empty()) {
            std::string name = exe.substr(exe.rfind('/') + 1);
            exe = g_appDir;
            if (exe.back() != '/') exe += '/';
            exe += name;
        }
    }
    if (!fileName || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (exe.size() + 1 > size) {
        copyCut(fileName, size, exe);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return size;
    }
    std::memcpy(fileName, exe.c_str(), exe.size() + 1);
    return static_cast<DWORD>(exe.size());
}

BOOL DeleteFile(const char* fileName) {
    if (!fileName) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    struct stat st;
    if (Sys().stat(fileName, &st) == 0 && S_ISDIR(st.st_mode)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (Sys().unlink(fileName) != 0) {
        SetLastError(errnoToWin32(errno));
        return FALSE;
    }
    return TRUE;
}

DWORD GetFileAttributes(const char* fileName) {
    struct stat st;
    if (!fileName || Sys().stat(fileName, &st) != 0) {
        SetLastError(fileName ? errnoToWin32(errno) : ERROR_INVALID_PARAMETER);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (S_ISDIR(st.st_mode)) return FILE_ATTRIBUTE_DIRECTORY;
    return Sys().access(fileName, W_OK) == 0 ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY;
}

HANDLE FindFirstFile(const char* fileName, WIN32_FIND_DATA* findData) {
    if (!fileName || !*fileName || !findData) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    std::string pattern = fileName;
    if (pattern.back() == '/') {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    size_t slash = pattern.rfind('/');
    auto state = new FindState;
    state->directory = slash == std::string::npos ? std::string() : pattern.substr(0, slash + 1);
    std::string last = slash == std::string::npos ? pattern : pattern.substr(slash + 1);
    if (last.find_first_of("*?") == std::string::npos) {
        struct stat st;
        if (Sys().stat(pattern.c_str(), &st) == 0) state->names.push_back(last);
    } else {
        DIR* dir = Sys().opendir(state->directory.empty() ? "." : state->directory.c_str());
        if (!dir) {
            delete state;
            SetLastError(ERROR_PATH_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        // "*.*" means every name on Windows, dotted or not.
        bool all = last == "*.*" || last == "*";
        while (dirent* e = Sys().readdir(dir)) {
            if (all || fnmatch(last.c_str(), e->d_name, FNM_CASEFOLD) == 0) state->names.push_back(e->d_name);
        }
        Sys().closedir(dir);
        std::sort(state->names.begin(), state->names.end());
    }
    if (!FindNextFile(state, findData)) {
        delete state;
        SetLastError(ERROR_FILE_NOT_FOUND);
        return INVALID_HANDLE_VALUE;
    }
    return state;
}

BOOL FindNextFile(HANDLE find, WIN32_FIND_DATA* findData) {
    auto state = static_cast<FindState*>(find);
    if (!state || find == INVALID_HANDLE_VALUE || !findData) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    while (state->next < state->names.size()) {
        const std::string& name = state->names[state->next++];
        std::string full = state->directory + name;
        struct stat st;
        if (Sys().stat(full.c_str(), &st) != 0) continue;  // gone since the listing
        fillFindData(full, name, st, findData);
        return TRUE;
    }
    SetLastError(ERROR_NO_MORE_FILES);
    return FALSE;
}

BOOL FindClose(HANDLE find) {
    if (!find || find == INVALID_HANDLE_VALUE) {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    delete static_cast<FindState*>(find);
    return TRUE;
}
