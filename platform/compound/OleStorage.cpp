// The structured-storage entry points and the task allocator.
#include "platform/OleStorage.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>

#include "platform/CString.h"
#include "platform/Unicode.h"
#include "platform/compound/internal/Handles.h"
#include "platform/internal/SystemCalls.h"

using namespace tavik::platform;
using tavik::platform::Sys;

namespace {

constexpr DWORD kShareMask = 0x70;
constexpr DWORD kKnownFlags = 0xF0FF | STGM_CREATE | STGM_CONVERT | STGM_TRANSACTED | STGM_PRIORITY |
                              STGM_NOSCRATCH | STGM_NOSNAPSHOT | STGM_DIRECT_SWMR | STGM_DELETEONRELEASE |
                              STGM_SIMPLE;

class TaskAllocator final : public IMalloc {
public:
    HRESULT QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IMalloc) {
            *ppv = static_cast<IMalloc*>(this);
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    // One allocator for the whole process, never destroyed: counting would only hide misuse.
    ULONG AddRef() override { return 2; }
    ULONG Release() override { return 1; }
    void* Alloc(size_t cb) override { return std::malloc(cb ? cb : 1); }
    void* Realloc(void* pv, size_t cb) override {
        if (cb == 0) {
            std::free(pv);
            return nullptr;
        }
        return std::realloc(pv, cb);
    }
    void Free(void* pv) override { std::free(pv); }
    size_t GetSize(void*) override { return static_cast<size_t>(-1); }
    int DidAlloc(void*) override { return -1; }
    void HeapMinimize() override {}
};

TaskAllocator g_allocator;

std::u16string Wide(const char* name) { return AnsiToWide(name); }
const OLECHAR* WidePtr(const char* name, const std::u16string& wide) { return name ? wide.c_str() : nullptr; }

bool ValidAccess(DWORD mode) { return (mode & 3) != 3 && (mode & ~kKnownFlags) == 0; }

IStorage* MakeRoot(std::shared_ptr<RootFile> file, NodePtr tree, DWORD mode) {
    // A transacted root's base is the file itself: nothing is copied until a revert reads it again.
    return new StorageImpl(std::move(file), std::move(tree), nullptr, mode, true,
                           std::make_shared<bool>(false), nullptr);
}

}  // namespace

HRESULT CoGetMalloc(DWORD dwMemContext, IMalloc** ppMalloc) {
    if (!ppMalloc) return E_INVALIDARG;
    if (dwMemContext != 1) {
        *ppMalloc = nullptr;
        return E_INVALIDARG;
    }
    *ppMalloc = &g_allocator;
    return S_OK;
}

void* CoTaskMemAlloc(size_t cb) { return g_allocator.Alloc(cb); }
void* CoTaskMemRealloc(void* pv, size_t cb) { return g_allocator.Realloc(pv, cb); }
void CoTaskMemFree(void* pv) { g_allocator.Free(pv); }

HRESULT StgCreateDocfile(const char* path, DWORD grfMode, DWORD reserved, IStorage** ppstgOpen) {
    if (!ppstgOpen) return STG_E_INVALIDPOINTER;
    *ppstgOpen = nullptr;
    if (reserved) return STG_E_INVALIDPARAMETER;
    if (!path || !*path) return STG_E_INVALIDPARAMETER;
    if (!ValidAccess(grfMode) || (grfMode & 3) == STGM_READ) return STG_E_INVALIDFLAG;
    if ((grfMode & STGM_CREATE) && (grfMode & STGM_CONVERT)) return STG_E_INVALIDFLAG;
    if ((grfMode & STGM_TRANSACTED) && (grfMode & STGM_SIMPLE)) return STG_E_INVALIDFLAG;
    if ((grfMode & STGM_NOSCRATCH) && !(grfMode & STGM_TRANSACTED)) return STG_E_INVALIDFLAG;
    if (grfMode & (STGM_CONVERT | STGM_DELETEONRELEASE | STGM_PRIORITY)) return STG_E_INVALIDFLAG;
    if (!(grfMode & STGM_TRANSACTED) && (grfMode & kShareMask) != STGM_SHARE_EXCLUSIVE)
        return STG_E_INVALIDFLAG;
    std::shared_ptr<RootFile> file;
    NodePtr tree;
    HRESULT hr = CreateRootFile(path, (grfMode & STGM_CREATE) != 0, file, tree);
    if (FAILED(hr)) return hr;
    *ppstgOpen = MakeRoot(std::move(file), std::move(tree), grfMode);
    return S_OK;
}

HRESULT StgCreateDocfile(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved, IStorage** ppstgOpen) {
    if (!pwcsName) {
        if (ppstgOpen) *ppstgOpen = nullptr;
        return STG_E_INVALIDPARAMETER;
    }
    return StgCreateDocfile(TavikWideToUtf8(pwcsName).c_str(), grfMode, reserved, ppstgOpen);
}

HRESULT StgOpenStorage(const char* path, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                       DWORD reserved, IStorage** ppstgOpen) {
    if (!ppstgOpen) return STG_E_INVALIDPOINTER;
    *ppstgOpen = nullptr;
    if (reserved) return STG_E_INVALIDPARAMETER;
    if (!path || !*path) return STG_E_INVALIDNAME;
    if (pstgPriority || snbExclude) return STG_E_INVALIDFUNCTION;
    if (!ValidAccess(grfMode) || (grfMode & (STGM_CREATE | STGM_CONVERT | STGM_DELETEONRELEASE)))
        return STG_E_INVALIDFLAG;
    const DWORD share = grfMode & kShareMask;
    const bool write = (grfMode & 3) != STGM_READ;
    if (!(grfMode & STGM_TRANSACTED)) {
        if (share != STGM_SHARE_EXCLUSIVE && share != STGM_SHARE_DENY_WRITE) return STG_E_INVALIDFLAG;
        if (share == STGM_SHARE_DENY_WRITE && write) return STG_E_INVALIDFLAG;
    }
    int lock = 0;
    if (write || share == STGM_SHARE_EXCLUSIVE || share == STGM_SHARE_DENY_READ)
        lock = 2;
    else if (share == STGM_SHARE_DENY_WRITE)
        lock = 1;
    std::shared_ptr<RootFile> file;
    NodePtr tree;
    HRESULT hr = OpenRootFile(path, lock, write, file, tree);
    if (FAILED(hr)) return hr;
    *ppstgOpen = MakeRoot(std::move(file), std::move(tree), grfMode);
    return S_OK;
}

HRESULT StgOpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                       DWORD reserved, IStorage** ppstgOpen) {
    if (!pwcsName) {
        if (ppstgOpen) *ppstgOpen = nullptr;
        return STG_E_INVALIDNAME;
    }
    return StgOpenStorage(TavikWideToUtf8(pwcsName).c_str(), pstgPriority, grfMode, snbExclude, reserved,
                          ppstgOpen);
}

HRESULT StgOpenStorageOnMemory(const void* data, size_t size, IStorage** ppstgOpen) {
    if (!ppstgOpen) return STG_E_INVALIDPOINTER;
    *ppstgOpen = nullptr;
    if (!data && size) return STG_E_INVALIDPOINTER;
    const auto* p = static_cast<const unsigned char*>(data);
    std::vector<unsigned char> bytes(p, p + size);
    auto file = std::make_shared<RootFile>();
    NodePtr tree;
    HRESULT hr = ReadCompoundFile(MakeMemoryStore(std::move(bytes)), file->m_backing, tree);
    if (FAILED(hr)) return hr;
    *ppstgOpen = MakeRoot(std::move(file), std::move(tree), STGM_READ | STGM_SHARE_EXCLUSIVE);
    return S_OK;
}

HRESULT StgIsStorageFile(const char* path) {
    if (!path) return STG_E_INVALIDNAME;
    int fd = Sys().open(path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) return STG_E_FILENOTFOUND;
    unsigned char sig[8] = {};
    ssize_t n = Sys().pread(fd, sig, sizeof sig, 0);
    Sys().close(fd);
    return n == 8 && std::memcmp(sig, cfb::kSignature, 8) == 0 ? S_OK : S_FALSE;
}

HRESULT StgIsStorageFile(const OLECHAR* pwcsName) {
    if (!pwcsName) return STG_E_INVALIDNAME;
    return StgIsStorageFile(TavikWideToUtf8(pwcsName).c_str());
}

HRESULT IStorage::CreateStream(const char* name, DWORD grfMode, DWORD r1, DWORD r2, IStream** ppstm) {
    std::u16string w = name ? Wide(name) : std::u16string();
    return CreateStream(WidePtr(name, w), grfMode, r1, r2, ppstm);
}
HRESULT IStorage::OpenStream(const char* name, void* r1, DWORD grfMode, DWORD r2, IStream** ppstm) {
    std::u16string w = name ? Wide(name) : std::u16string();
    return OpenStream(WidePtr(name, w), r1, grfMode, r2, ppstm);
}
HRESULT IStorage::CreateStorage(const char* name, DWORD grfMode, DWORD r1, DWORD r2, IStorage** ppstg) {
    std::u16string w = name ? Wide(name) : std::u16string();
    return CreateStorage(WidePtr(name, w), grfMode, r1, r2, ppstg);
}
HRESULT IStorage::OpenStorage(const char* name, IStorage* priority, DWORD grfMode, SNB exclude, DWORD r,
                              IStorage** ppstg) {
    std::u16string w = name ? Wide(name) : std::u16string();
    return OpenStorage(WidePtr(name, w), priority, grfMode, exclude, r, ppstg);
}
HRESULT IStorage::DestroyElement(const char* name) {
    std::u16string w = name ? Wide(name) : std::u16string();
    return DestroyElement(WidePtr(name, w));
}
HRESULT IStorage::RenameElement(const char* oldName, const char* newName) {
    std::u16string a = oldName ? Wide(oldName) : std::u16string();
    std::u16string b = newName ? Wide(newName) : std::u16string();
    return RenameElement(WidePtr(oldName, a), WidePtr(newName, b));
}
