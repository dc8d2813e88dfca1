// OLE structured storage: compound files with the Windows interfaces, names and result codes.
//
// Files are Compound File Binary version 3 (512-byte sectors) when written; versions 3 and 4 are read.
// Element names are UTF-16 (at most 31 units); the `const char*` overloads take Windows-1252 text, as an
// ANSI Windows program converts it. Paths in the `const char*` overloads are file-system bytes.
//
// Behaviour that callers rely on, and where it differs from a Windows docfile:
// - STGM_SHARE_EXCLUSIVE is the only share mode for elements; a second open of an open element fails with
//   STG_E_ACCESSDENIED. A file opened for writing (or exclusively) is locked: another open of it, in this
//   or another process, fails with STG_E_SHAREVIOLATION.
// - Transacted storages publish to their parent at Commit; Revert and Release without Commit discard.
// - Nothing reaches the disk until the root commits. A direct-mode root commits at Commit and at its last
//   Release (errors at Release are lost, as on Windows). Each root commit writes a complete new file beside
//   the old one and renames it over the old one: a crash leaves the old file or the new one, never a mix.
//   A full disk gives STG_E_MEDIUMFULL and leaves the handle usable.
// - Methods the engine does not support return STG_E_INVALIDFUNCTION or E_NOTIMPL, never success.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/WinTypes.h"

// ---- result codes -------------------------------------------------------------------------------------
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
constexpr HRESULT STG_E_INVALIDFUNCTION = static_cast<HRESULT>(0x80030001u);
constexpr HRESULT STG_E_FILENOTFOUND = static_cast<HRESULT>(0x80030002u);
constexpr HRESULT STG_E_PATHNOTFOUND = static_cast<HRESULT>(0x80030003u);
constexpr HRESULT STG_E_TOOMANYOPENFILES = static_cast<HRESULT>(0x80030004u);
constexpr HRESULT STG_E_ACCESSDENIED = static_cast<HRESULT>(0x80030005u);
constexpr HRESULT STG_E_INVALIDHANDLE = static_cast<HRESULT>(0x80030006u);
constexpr HRESULT STG_E_INSUFFICIENTMEMORY = static_cast<HRESULT>(0x80030008u);
constexpr HRESULT STG_E_INVALIDPOINTER = static_cast<HRESULT>(0x80030009u);
constexpr HRESULT STG_E_NOMOREFILES = static_cast<HRESULT>(0x80030012u);
constexpr HRESULT STG_E_DISKISWRITEPROTECTED = static_cast<HRESULT>(0x80030013u);
constexpr HRESULT STG_E_SEEKERROR = static_cast<HRESULT>(0x80030019u);
constexpr HRESULT STG_E_WRITEFAULT = static_cast<HRESULT>(0x8003001Du);
constexpr HRESULT STG_E_READFAULT = static_cast<HRESULT>(0x8003001Eu);
constexpr HRESULT STG_E_SHAREVIOLATION = static_cast<HRESULT>(0x80030020u);
constexpr HRESULT STG_E_LOCKVIOLATION = static_cast<HRESULT>(0x80030021u);
constexpr HRESULT STG_E_FILEALREADYEXISTS = static_cast<HRESULT>(0x80030050u);
constexpr HRESULT STG_E_INVALIDPARAMETER = static_cast<HRESULT>(0x80030057u);
constexpr HRESULT STG_E_MEDIUMFULL = static_cast<HRESULT>(0x80030070u);
constexpr HRESULT STG_E_PROPSETMISMATCHED = static_cast<HRESULT>(0x800300F0u);
constexpr HRESULT STG_E_ABNORMALAPIEXIT = static_cast<HRESULT>(0x800300FAu);
constexpr HRESULT STG_E_INVALIDHEADER = static_cast<HRESULT>(0x800300FBu);
constexpr HRESULT STG_E_INVALIDNAME = static_cast<HRESULT>(0x800300FCu);
constexpr HRESULT STG_E_UNKNOWN = static_cast<HRESULT>(0x800300FDu);
constexpr HRESULT STG_E_UNIMPLEMENTEDFUNCTION = static_cast<HRESULT>(0x800300FEu);
constexpr HRESULT STG_E_INVALIDFLAG = static_cast<HRESULT>(0x800300FFu);
constexpr HRESULT STG_E_INUSE = static_cast<HRESULT>(0x80030100u);
constexpr HRESULT STG_E_NOTCURRENT = static_cast<HRESULT>(0x80030101u);
constexpr HRESULT STG_E_REVERTED = static_cast<HRESULT>(0x80030102u);
constexpr HRESULT STG_E_CANTSAVE = static_cast<HRESULT>(0x80030103u);
constexpr HRESULT STG_E_OLDFORMAT = static_cast<HRESULT>(0x80030104u);
constexpr HRESULT STG_E_OLDDLL = static_cast<HRESULT>(0x80030105u);
constexpr HRESULT STG_E_SHAREREQUIRED = static_cast<HRESULT>(0x80030106u);
constexpr HRESULT STG_E_NOTFILEBASEDSTORAGE = static_cast<HRESULT>(0x80030107u);
constexpr HRESULT STG_E_EXTANTMARSHALLINGS = static_cast<HRESULT>(0x80030108u);
constexpr HRESULT STG_E_DOCFILECORRUPT = static_cast<HRESULT>(0x80030109u);
constexpr HRESULT STG_E_BADBASEADDRESS = static_cast<HRESULT>(0x80030110u);
constexpr HRESULT STG_E_DOCFILETOOLARGE = static_cast<HRESULT>(0x80030111u);
constexpr HRESULT STG_E_NOTSIMPLEFORMAT = static_cast<HRESULT>(0x80030112u);
constexpr HRESULT STG_E_INCOMPLETE = static_cast<HRESULT>(0x80030201u);
constexpr HRESULT STG_E_TERMINATED = static_cast<HRESULT>(0x80030202u);
constexpr HRESULT STG_S_CONVERTED = static_cast<HRESULT>(0x00030200u);
constexpr HRESULT STG_S_MULTIPLEOPENS = static_cast<HRESULT>(0x00030204u);
constexpr HRESULT STG_S_CONSOLIDATIONFAILED = static_cast<HRESULT>(0x00030205u);
constexpr HRESULT STG_S_CANNOTCONSOLIDATE = static_cast<HRESULT>(0x00030206u);

// ---- modes and flags ----------------------------------------------------------------------------------
constexpr DWORD STGM_READ = 0x00000000;
constexpr DWORD STGM_WRITE = 0x00000001;
constexpr DWORD STGM_READWRITE = 0x00000002;
constexpr DWORD STGM_SHARE_DENY_NONE = 0x00000040;
constexpr DWORD STGM_SHARE_DENY_READ = 0x00000030;
constexpr DWORD STGM_SHARE_DENY_WRITE = 0x00000020;
constexpr DWORD STGM_SHARE_EXCLUSIVE = 0x00000010;
constexpr DWORD STGM_PRIORITY = 0x00040000;
constexpr DWORD STGM_CREATE = 0x00001000;
constexpr DWORD STGM_CONVERT = 0x00020000;
constexpr DWORD STGM_FAILIFTHERE = 0x00000000;
constexpr DWORD STGM_DIRECT = 0x00000000;
constexpr DWORD STGM_TRANSACTED = 0x00010000;
constexpr DWORD STGM_NOSCRATCH = 0x00100000;
constexpr DWORD STGM_NOSNAPSHOT = 0x00200000;
constexpr DWORD STGM_SIMPLE = 0x08000000;
constexpr DWORD STGM_DIRECT_SWMR = 0x00400000;
constexpr DWORD STGM_DELETEONRELEASE = 0x04000000;

constexpr DWORD STGC_DEFAULT = 0;
constexpr DWORD STGC_OVERWRITE = 1;
constexpr DWORD STGC_ONLYIFCURRENT = 2;
constexpr DWORD STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE = 4;
constexpr DWORD STGC_CONSOLIDATE = 8;

constexpr DWORD STGTY_STORAGE = 1;
constexpr DWORD STGTY_STREAM = 2;
constexpr DWORD STGTY_LOCKBYTES = 3;
constexpr DWORD STGTY_PROPERTY = 4;

constexpr DWORD STATFLAG_DEFAULT = 0;
constexpr DWORD STATFLAG_NONAME = 1;
constexpr DWORD STATFLAG_NOOPEN = 2;

constexpr DWORD STREAM_SEEK_SET = 0;
constexpr DWORD STREAM_SEEK_CUR = 1;
constexpr DWORD STREAM_SEEK_END = 2;

// glibc's <fcntl.h> has a LOCK_WRITE macro of its own (a Linux mandatory-lock flag); the Windows name
// wins in files that include both.
#ifdef LOCK_WRITE
#undef LOCK_WRITE
#endif
constexpr DWORD LOCK_WRITE = 1;
constexpr DWORD LOCK_EXCLUSIVE = 2;
constexpr DWORD LOCK_ONLYONCE = 4;

constexpr DWORD STGMOVE_MOVE = 0;
constexpr DWORD STGMOVE_COPY = 1;

constexpr int CWCSTORAGENAME = 32;  // name buffer in UTF-16 units, terminator included

// ---- plain types --------------------------------------------------------------------------------------
union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
};

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    };
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};

struct GUID {
    DWORD Data1;
    WORD Data2;
    WORD Data3;
    BYTE Data4[8];
};
using CLSID = GUID;
using IID = GUID;
using REFCLSID = const CLSID&;
using REFIID = const IID&;

inline bool operator==(const GUID& a, const GUID& b) {
    if (a.Data1 != b.Data1 || a.Data2 != b.Data2 || a.Data3 != b.Data3) return false;
    for (int i = 0; i < 8; ++i)
        if (a.Data4[i] != b.Data4[i]) return false;
    return true;
}
inline bool operator!=(const GUID& a, const GUID& b) { return !(a == b); }

inline constexpr CLSID CLSID_NULL = {0, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}};
inline constexpr IID IID_IUnknown = {0x00000000, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IMalloc = {0x00000002, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IStorage = {0x0000000B, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IStream = {0x0000000C, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IEnumSTATSTG = {0x0000000D, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_ISequentialStream = {
    0x0C733A30, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};

// Element status. pwcsName is allocated with the task allocator; the receiver frees it with
// CoTaskMemFree (null when STATFLAG_NONAME was asked).
struct STATSTG {
    LPOLESTR pwcsName;
    DWORD type;
    ULARGE_INTEGER cbSize;
    FILETIME mtime;
    FILETIME ctime;
    FILETIME atime;
    DWORD grfMode;
    DWORD grfLocksSupported;
    CLSID clsid;
    DWORD grfStateBits;
    DWORD reserved;
};

using SNB = LPOLESTR*;  // null-terminated list of names

// ---- interfaces ---------------------------------------------------------------------------------------
// Reference counted as COM objects: an object starts with one reference for the caller that received it
// and deletes itself at the last Release.
class IUnknown {
public:
    virtual HRESULT QueryInterface(REFIID riid, void** ppvObject) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    virtual ~IUnknown() = default;
};

class IMalloc : public IUnknown {
public:
    virtual void* Alloc(size_t cb) = 0;
    virtual void* Realloc(void* pv, size_t cb) = 0;
    virtual void Free(void* pv) = 0;
    virtual size_t GetSize(void* pv) = 0;  // (size_t)-1 when unknown
    virtual int DidAlloc(void* pv) = 0;    // -1: cannot tell
    virtual void HeapMinimize() = 0;
};

class ISequentialStream : public IUnknown {
public:
    // Read gives S_OK also when fewer bytes than asked remain (*pcbRead tells how many).
    virtual HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) = 0;
    virtual HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) = 0;
};

class IStream : public ISequentialStream {
public:
    // Seeking before the start gives STG_E_INVALIDFUNCTION; past the end is allowed (a later Write grows
    // the stream, zero-filled).
    virtual HRESULT Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) = 0;
    virtual HRESULT SetSize(ULARGE_INTEGER libNewSize) = 0;
    virtual HRESULT CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                           ULARGE_INTEGER* pcbWritten) = 0;
    // Streams are direct: Commit has nothing to publish and gives S_OK; Revert likewise.
    virtual HRESULT Commit(DWORD grfCommitFlags) = 0;
    virtual HRESULT Revert() = 0;
    // Region locks are not supported by compound-file streams: STG_E_INVALIDFUNCTION.
    virtual HRESULT LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) = 0;
    virtual HRESULT UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) = 0;
    virtual HRESULT Stat(STATSTG* pstatstg, DWORD grfStatFlag) = 0;
    virtual HRESULT Clone(IStream** ppstm) = 0;
};

class IEnumSTATSTG : public IUnknown {
public:
    // Fills up to celt entries; S_FALSE when fewer remained. Names freed by the caller (CoTaskMemFree).
    virtual HRESULT Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) = 0;
    virtual HRESULT Skip(ULONG celt) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumSTATSTG** ppenum) = 0;
};

class IStorage : public IUnknown {
public:
    // Element calls fail with STG_E_INVALIDNAME (name null, empty, longer than 31 units, or holding
    // / \ : !), STG_E_FILENOTFOUND (missing), STG_E_FILEALREADYEXISTS (create without STGM_CREATE over an
    // existing element), STG_E_ACCESSDENIED (element already open, or parent opened read-only),
    // STG_E_INVALIDFLAG (share mode other than exclusive), STG_E_REVERTED (this storage was destroyed or
    // reverted above). Out-pointers are set to null on failure.
    virtual HRESULT CreateStream(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                 IStream** ppstm) = 0;
    virtual HRESULT OpenStream(const OLECHAR* pwcsName, void* reserved1, DWORD grfMode, DWORD reserved2,
                               IStream** ppstm) = 0;
    virtual HRESULT CreateStorage(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                                  IStorage** ppstg) = 0;
    virtual HRESULT OpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode,
                                SNB snbExclude, DWORD reserved, IStorage** ppstg) = 0;
    // Copies every element (streams replace, storages merge) into pstgDest; names in snbExclude are
    // skipped at the top level. Copying into its own descendant gives STG_E_ACCESSDENIED.
    virtual HRESULT CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude,
                           IStorage* pstgDest) = 0;
    virtual HRESULT MoveElementTo(const OLECHAR* pwcsName, IStorage* pstgDest, const OLECHAR* pwcsNewName,
                                  DWORD grfFlags) = 0;
    // Transacted: publishes to the parent (the root: writes the file). Direct: the root writes the file.
    virtual HRESULT Commit(DWORD grfCommitFlags) = 0;
    virtual HRESULT Revert() = 0;
    virtual HRESULT EnumElements(DWORD reserved1, void* reserved2, DWORD reserved3,
                                 IEnumSTATSTG** ppenum) = 0;
    // Removes a stream or a whole sub-storage; handles open under it then give STG_E_REVERTED. The
    // empty name is accepted here (and nowhere else) when a damaged file holds a nameless element.
    virtual HRESULT DestroyElement(const OLECHAR* pwcsName) = 0;
    virtual HRESULT RenameElement(const OLECHAR* pwcsOldName, const OLECHAR* pwcsNewName) = 0;
    virtual HRESULT SetElementTimes(const OLECHAR* pwcsName, const FILETIME* pctime, const FILETIME* patime,
                                    const FILETIME* pmtime) = 0;
    virtual HRESULT SetClass(REFCLSID clsid) = 0;
    virtual HRESULT SetStateBits(DWORD grfStateBits, DWORD grfMask) = 0;
    virtual HRESULT Stat(STATSTG* pstatstg, DWORD grfStatFlag) = 0;

    // Windows-1252 conveniences: the same calls with 8-bit names.
    HRESULT CreateStream(const char* name, DWORD grfMode, DWORD reserved1, DWORD reserved2, IStream** ppstm);
    HRESULT OpenStream(const char* name, void* reserved1, DWORD grfMode, DWORD reserved2, IStream** ppstm);
    HRESULT CreateStorage(const char* name, DWORD grfMode, DWORD reserved1, DWORD reserved2,
                          IStorage** ppstg);
    HRESULT OpenStorage(const char* name, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                        DWORD reserved, IStorage** ppstg);
    HRESULT DestroyElement(const char* name);
    HRESULT RenameElement(const char* oldName, const char* newName);
};

// ---- calls --------------------------------------------------------------------------------------------
// The task allocator; *ppMalloc gets a reference (Release it). dwMemContext must be 1 (MEMCTX_TASK).
HRESULT CoGetMalloc(DWORD dwMemContext, IMalloc** ppMalloc);
void* CoTaskMemAlloc(size_t cb);
void* CoTaskMemRealloc(void* pv, size_t cb);
void CoTaskMemFree(void* pv);  // null is allowed

// Creates a compound file. Needs write access and, in direct mode, STGM_SHARE_EXCLUSIVE (else
// STG_E_INVALIDFLAG); an existing file without STGM_CREATE gives STG_E_FILEALREADYEXISTS. The new file
// (mode 0600) exists on disk, empty, when the call returns. pwcsName null (a temporary file) gives
// STG_E_INVALIDPARAMETER.
HRESULT StgCreateDocfile(const OLECHAR* pwcsName, DWORD grfMode, DWORD reserved, IStorage** ppstgOpen);
HRESULT StgCreateDocfile(const char* path, DWORD grfMode, DWORD reserved, IStorage** ppstgOpen);

// Opens a compound file. Missing file STG_E_FILENOTFOUND, missing folder STG_E_PATHNOTFOUND, no
// permission STG_E_ACCESSDENIED, locked by another open STG_E_SHAREVIOLATION, not a compound file
// STG_E_FILEALREADYEXISTS (as Windows reports it), a pre-release file STG_E_OLDFORMAT, damaged
// structures STG_E_DOCFILECORRUPT. A stream damaged on its own fails only when it is read.
HRESULT StgOpenStorage(const OLECHAR* pwcsName, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                       DWORD reserved, IStorage** ppstgOpen);
HRESULT StgOpenStorage(const char* path, IStorage* pstgPriority, DWORD grfMode, SNB snbExclude,
                       DWORD reserved, IStorage** ppstgOpen);
// Opens a compound file held in memory (read-only; the bytes are copied). Used by tools and tests.
HRESULT StgOpenStorageOnMemory(const void* data, size_t size, IStorage** ppstgOpen);

// S_OK for a compound file, S_FALSE for another file, STG_E_FILENOTFOUND when it cannot be opened.
HRESULT StgIsStorageFile(const OLECHAR* pwcsName);
HRESULT StgIsStorageFile(const char* path);

// ---- beyond Windows -----------------------------------------------------------------------------------
// The symbolic name of a result ("STG_E_SHAREVIOLATION") and a sentence saying what it means to someone
// looking at a file ("the file is open elsewhere, by a program that does not share it"); both null for a
// code outside the sets above and in platform/WinTypes.h.
const char* StgErrorName(HRESULT hr);
const char* StgErrorText(HRESULT hr);
