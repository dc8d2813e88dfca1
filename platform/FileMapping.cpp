#include "platform/FileMapping.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Kernel.h"
#include "platform/internal/FileMappingObject.h"
#include "platform/internal/SystemCalls.h"

using tavik::platform::Sys;

namespace tavik::platform {

FileMappingObject::~FileMappingObject() {
    if (fd >= 0) Sys().close(fd);
}

}  // namespace tavik::platform

namespace {

using tavik::platform::FileMappingObject;

struct View {
    size_t length;  // bytes mapped, from the page-aligned start
    std::shared_ptr<FileMappingObject> mapping;
};

std::mutex g_lock;
std::map<std::string, std::weak_ptr<FileMappingObject>> g_named;
std::map<const void*, View> g_views;

bool writable(DWORD protect) { return (protect & 0xFF) == PAGE_READWRITE; }

}  // namespace

DWORD TavikAllocationGranularity() { return static_cast<DWORD>(Sys().sysconf(_SC_PAGESIZE)); }

HANDLE CreateFileMapping(HANDLE file, SECURITY_ATTRIBUTES* security, DWORD protect, DWORD maximumSizeHigh,
                         DWORD maximumSizeLow, const char* name) {
    DWORD page = protect & 0xFF;
    if (page != PAGE_READONLY && page != PAGE_READWRITE && page != PAGE_WRITECOPY) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    ULONGLONG size = (static_cast<ULONGLONG>(maximumSizeHigh) << 32) | maximumSizeLow;
    std::lock_guard<std::mutex> lock(g_lock);
    if (name && *name) {
        auto found = g_named.find(name);
        if (found != g_named.end()) {
            if (auto existing = found->second.lock()) {
                HANDLE h = tavik::platform::NewFileMappingHandle(existing);
                SetLastError(ERROR_ALREADY_EXISTS);
                return h;
            }
            g_named.erase(found);
        }
    }
    int fd = -1;
    if (file == INVALID_HANDLE_VALUE || file == nullptr) {
        // Page-file backed: the whole size must be given.
        if (size == 0) {
            SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        fd = Sys().memfd_create("tavik-mapping", MFD_CLOEXEC);
        if (fd < 0 || Sys().ftruncate(fd, static_cast<off_t>(size)) != 0) {
            if (fd >= 0) Sys().close(fd);
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
    } else {
        int fileFd = tavik::platform::FileDescriptorOfHandle(file);
        if (fileFd < 0) {
            SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        int mode = Sys().fcntl(fileFd, F_GETFL, 0);
        if (mode < 0) {
            SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        int access = mode & O_ACCMODE;
        if (access == O_WRONLY || (page == PAGE_READWRITE && access != O_RDWR)) {
            SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        }
        struct stat st;
        if (Sys().fstat(fileFd, &st) != 0) {
            SetLastError(ERROR_INVALID_HANDLE);
            return nullptr;
        }
        ULONGLONG length = static_cast<ULONGLONG>(st.st_size);
        if (size == 0) {
            if (length == 0) {
                SetLastError(ERROR_FILE_INVALID);
                return nullptr;
            }
            size = length;
        } else if (size > length) {
            if (page != PAGE_READWRITE) {
                SetLastError(
                    ERROR_NOT_ENOUGH_MEMORY);  // Windows: ERROR_NOT_ENOUGH_MEMORY for a read-only grow
                return nullptr;
            }
            if (Sys().ftruncate(fileFd, static_cast<off_t>(size)) != 0) {
                SetLastError(ERROR_ACCESS_DENIED);
                return nullptr;
            }
        }
        // Our own descriptor, so that the mapping outlives a CFile that closes first.
        fd = Sys().fcntl(fileFd, F_DUPFD_CLOEXEC, 0);
        if (fd < 0) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return nullptr;
        }
    }
    auto object = std::make_shared<FileMappingObject>();
    object->fd = fd;
    object->size = size;
    object->protect = page;
    if (name && *name) g_named[name] = object;
    SetLastError(ERROR_SUCCESS);
    return tavik::platform::NewFileMappingHandle(object);
}

HANDLE OpenFileMapping(DWORD desiredAccess, BOOL inheritHandle, const char* name) {
    std::lock_guard<std::mutex> lock(g_lock);
    auto found = name ? g_named.find(name) : g_named.end();
    std::shared_ptr<FileMappingObject> existing;
    if (found != g_named.end()) existing = found->second.lock();
    if (!existing) {
        SetLastError(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    return tavik::platform::NewFileMappingHandle(existing);
}

LPVOID MapViewOfFile(HANDLE mapping, DWORD desiredAccess, DWORD offsetHigh, DWORD offsetLow, SIZE_T size) {
    std::shared_ptr<FileMappingObject> object = tavik::platform::FileMappingOfHandle(mapping);
    if (!object) {
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    ULONGLONG offset = (static_cast<ULONGLONG>(offsetHigh) << 32) | offsetLow;
    if (offset % TavikAllocationGranularity() != 0) {
        SetLastError(ERROR_MAPPED_ALIGNMENT);
        return nullptr;
    }
    if (offset > object->size || (size == 0 && offset == object->size) || size > object->size - offset) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    if (size == 0) size = static_cast<SIZE_T>(object->size - offset);
    bool wantWrite = (desiredAccess & FILE_MAP_WRITE) != 0;
    bool copy = (desiredAccess & FILE_MAP_COPY) != 0 && !wantWrite;
    if (wantWrite && !writable(object->protect)) {
        SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    int prot = PROT_READ | (wantWrite || copy ? PROT_WRITE : 0);
    int flags = copy || object->protect == PAGE_WRITECOPY ? MAP_PRIVATE : MAP_SHARED;
    void* address = Sys().mmap(nullptr, size, prot, flags, object->fd, static_cast<off_t>(offset));
    if (address == MAP_FAILED) {
        SetLastError(errno == ENOMEM ? ERROR_NOT_ENOUGH_MEMORY : ERROR_ACCESS_DENIED);
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(g_lock);
    g_views[address] = View{size, object};
    return address;
}

BOOL UnmapViewOfFile(LPCVOID baseAddress) {
    View view;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        auto found = g_views.find(baseAddress);
        if (found == g_views.end()) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return FALSE;
        }
        view = std::move(found->second);
        g_views.erase(found);
    }
    Sys().munmap(const_cast<void*>(baseAddress), view.length);
    return TRUE;
}

BOOL FlushViewOfFile(LPCVOID baseAddress, SIZE_T size) {
    const char* start = nullptr;
    size_t length = 0;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        // The view that holds the address: the last one starting at or before it.
        auto found = g_views.upper_bound(baseAddress);
        if (found == g_views.begin()) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return FALSE;
        }
        --found;
        const char* viewStart = static_cast<const char*>(found->first);
        const char* address = static_cast<const char*>(baseAddress);
        if (address >= viewStart + found->second.length) {
            SetLastError(ERROR_INVALID_ADDRESS);
            return FALSE;
        }
        size_t rest = static_cast<size_t>(viewStart + found->second.length - address);
        length = size == 0 || size > rest ? rest : size;
        // msync wants a page-aligned start.
        size_t pageMask = TavikAllocationGranularity() - 1;
        start = viewStart + (static_cast<size_t>(address - viewStart) & ~pageMask);
        length += static_cast<size_t>(address - start);
    }
    if (Sys().msync(const_cast<char*>(start), length, MS_SYNC) != 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    return TRUE;
}
