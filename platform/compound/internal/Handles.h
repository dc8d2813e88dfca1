// The COM objects handed out by the engine and the file they share.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "platform/OleStorage.h"
#include "platform/compound/internal/Tree.h"

namespace tavik::platform {

// One open compound file: where it lives, the version its unchanged streams are read from, and the lock.
class RootFile {
public:
    std::string m_path;  // empty for a file held in memory
    std::shared_ptr<Backing> m_backing;
    unsigned m_permissions = 0600;
    bool m_writable = false;

    // Writes `tree` as the file's new version: a complete file beside the old one, flushed, then renamed
    // over it. On failure the old file and this object are unchanged and no temporary file remains.
    HRESULT Commit(const Node& tree);

    // Called when nobody is writing a large stream any more. Once the streams waiting for a commit hold
    // more than SpillThreshold() bytes of memory, moves this one's bytes into an unnamed scratch file in
    // the same directory, from where the next commit copies them. Leaves them in memory when there is
    // no such file to be had (no path, no room, a file system without unnamed files).
    void Spill(StreamContent& content);

private:
    std::shared_ptr<Backing> m_scratch;  // the current scratch file; older ones live while streams use them
    std::uint64_t m_scratchSectors = 0;
    std::uint64_t m_held = 0;  // bytes of released large streams kept in memory since the last commit
    bool m_noScratch = false;
};

// 256 MB unless a test lowers it.
std::uint64_t& SpillThreshold();

// Opens or creates the file behind a root storage. `lock` is 0 (none kept, though an exclusive holder
// still refuses the open), 1 (shared) or 2 (exclusive).
HRESULT OpenRootFile(const std::string& path, int lock, bool writable, std::shared_ptr<RootFile>& file,
                     NodePtr& tree);
HRESULT CreateRootFile(const std::string& path, bool replace, std::shared_ptr<RootFile>& file, NodePtr& tree);

std::uint64_t NowFileTime();
LPOLESTR CopyName(std::u16string_view name);  // CoTaskMemAlloc'd, null on no memory

class StorageImpl final : public IStorage {
public:
    // node: the tree this handle reads and changes. base: for a transacted handle, the element its
    // commits replace (a transacted root has none: its base is the file as last committed). dirty: changes
    // since this level's last commit; parentDirty: the level a transacted commit publishes to.
    StorageImpl(std::shared_ptr<RootFile> file, NodePtr node, NodePtr base, DWORD mode, bool root,
                std::shared_ptr<bool> dirty, std::shared_ptr<bool> parentDirty);

    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    ULONG AddRef() override;
    ULONG Release() override;

    using IStorage::CreateStorage;
    using IStorage::CreateStream;
    using IStorage::DestroyElement;
    using IStorage::OpenStorage;
    using IStorage::OpenStream;
    using IStorage::RenameElement;
    HRESULT CreateStream(const OLECHAR* name, DWORD mode, DWORD r1, DWORD r2, IStream** ppstm) override;
    HRESULT OpenStream(const OLECHAR* name, void* r1, DWORD mode, DWORD r2, IStream** ppstm) override;
    HRESULT CreateStorage(const OLECHAR* name, DWORD mode, DWORD r1, DWORD r2, IStorage** ppstg) override;
    HRESULT OpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode, SNB exclude, DWORD r,
                        IStorage** ppstg) override;
    HRESULT CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude, IStorage* dest) override;
    HRESULT MoveElementTo(const OLECHAR* name, IStorage* dest, const OLECHAR* newName, DWORD flags) override;
    HRESULT Commit(DWORD flags) override;
    HRESULT Revert() override;
    HRESULT EnumElements(DWORD r1, void* r2, DWORD r3, IEnumSTATSTG** ppenum) override;
    HRESULT DestroyElement(const OLECHAR* name) override;
    HRESULT RenameElement(const OLECHAR* oldName, const OLECHAR* newName) override;
    HRESULT SetElementTimes(const OLECHAR* name, const FILETIME* pctime, const FILETIME* patime,
                            const FILETIME* pmtime) override;
    HRESULT SetClass(REFCLSID clsid) override;
    HRESULT SetStateBits(DWORD bits, DWORD mask) override;
    HRESULT Stat(STATSTG* pstatstg, DWORD flags) override;

private:
    ~StorageImpl() override;
    bool Alive() const { return !m_node->dead && !(m_base && m_base->dead); }
    // Alive, with the working tree re-made from the base when a commit or revert handed it over.
    bool Usable();
    // Takes the working tree out, leaving a childless stand-in, when no handle or enumerator holds any
    // part of it: a commit can then publish it without copying it. The next use copies the base again.
    // Null, nothing done, when someone holds a part.
    NodePtr TakeTree();
    // Revert of a transacted root: the tree read again from the last committed file.
    HRESULT RevertToFile();
    bool Writable() const { return (m_mode & 3) != STGM_READ; }
    HRESULT CheckChild(const OLECHAR* name, DWORD mode, bool stream, std::u16string_view& key);
    HRESULT Create(const OLECHAR* name, DWORD mode, bool stream, NodePtr& node);
    IStorage* MakeChild(const NodePtr& node, DWORD mode);
    void Touch() { *m_dirty = true; }

    std::atomic<ULONG> m_refs{1};
    std::shared_ptr<RootFile> m_file;
    NodePtr m_node;
    NodePtr m_base;
    DWORD m_mode;
    bool m_root;
    std::shared_ptr<bool> m_dirty;
    std::shared_ptr<bool> m_parentDirty;
    // m_node is a childless stand-in for a copy of m_base not made yet.
    bool m_stale = false;
};

class StreamImpl final : public IStream {
public:
    StreamImpl(std::shared_ptr<RootFile> file, NodePtr node, DWORD mode, std::shared_ptr<bool> dirty);

    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    ULONG AddRef() override;
    ULONG Release() override;
    HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) override;
    HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) override;
    HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) override;
    HRESULT SetSize(ULARGE_INTEGER size) override;
    HRESULT CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                   ULARGE_INTEGER* pcbWritten) override;
    HRESULT Commit(DWORD flags) override;
    HRESULT Revert() override;
    HRESULT LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER cb, DWORD type) override;
    HRESULT UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER cb, DWORD type) override;
    HRESULT Stat(STATSTG* pstatstg, DWORD flags) override;
    HRESULT Clone(IStream** ppstm) override;

private:
    ~StreamImpl() override;
    HRESULT Own(StreamContent** content);

    std::atomic<ULONG> m_refs{1};
    std::shared_ptr<RootFile> m_file;
    NodePtr m_node;
    DWORD m_mode;
    std::shared_ptr<bool> m_dirty;
    std::uint64_t m_position = 0;
};

class EnumImpl final : public IEnumSTATSTG {
public:
    EnumImpl(std::shared_ptr<RootFile> file, NodePtr storage);

    HRESULT QueryInterface(REFIID riid, void** ppv) override;
    ULONG AddRef() override;
    ULONG Release() override;
    HRESULT Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) override;
    HRESULT Skip(ULONG celt) override;
    HRESULT Reset() override;
    HRESULT Clone(IEnumSTATSTG** ppenum) override;

private:
    ~EnumImpl() override = default;
    const Node* Advance();

    std::atomic<ULONG> m_refs{1};
    std::shared_ptr<RootFile> m_file;
    NodePtr m_storage;
    std::u16string m_last;
    Children::const_iterator m_at;  // where m_last is, while the storage's version is m_version
    std::uint64_t m_version = 0;
    bool m_started = false;
};

// Fills a STATSTG for a node (the name copied unless STATFLAG_NONAME).
HRESULT FillStat(const Node& node, STATSTG* stat, DWORD flags, DWORD mode, std::u16string_view name);

}  // namespace tavik::platform
