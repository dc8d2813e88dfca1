// The engine's model of a compound file: a tree of nodes in memory whose stream bytes stay in the file
// they came from until someone changes them. The storage and stream handles work on this tree only; the
// reader builds it from bytes and the writer turns it into a new file.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/OleStorage.h"
#include "platform/compound/internal/ByteArena.h"
#include "platform/compound/internal/Format.h"

namespace tavik::platform {

// Random-access bytes of one file version: a real file or a buffer.
class ByteStore {
public:
    virtual ~ByteStore() = default;
    // Bytes read (fewer only at the end of the store), or -1 on an I/O error.
    virtual long long ReadAt(std::uint64_t offset, void* buffer, std::size_t count) = 0;
    virtual std::uint64_t Size() const = 0;
    // Only a scratch store takes writes; the others are file versions that never change.
    virtual bool WriteAt(std::uint64_t, const void*, std::size_t) { return false; }
};

std::unique_ptr<ByteStore> MakeMemoryStore(std::vector<unsigned char> bytes);
// Takes ownership of fd (and with it any lock held through it).
std::unique_ptr<ByteStore> MakeFileStore(int fd);
// A file that grows while it is read, for bytes waiting for a commit; takes ownership of fd.
std::unique_ptr<ByteStore> MakeScratchStore(int fd);

// The allocation tables of one file version, and the byte store they describe.
class Backing {
public:
    std::unique_ptr<ByteStore> store;
    std::uint32_t sectorShift = 9;
    std::uint64_t fileSectors = 0;  // sectors at least partly present in the store
    std::vector<std::uint32_t> fat;
    std::vector<std::uint32_t> miniFat;
    std::uint32_t miniStart = cfb::ENDOFCHAIN;
    std::uint64_t miniSize = 0;

    std::uint32_t SectorSize() const { return 1u << sectorShift; }
    std::uint64_t SectorOffset(std::uint32_t sector) const {
        return (static_cast<std::uint64_t>(sector) + 1) << sectorShift;
    }

    // A resolved chain: an explicit list, or (the usual case for files we write) a run of sectors.
    struct Chain {
        std::vector<std::uint32_t> list;
        std::uint32_t first = 0;
        std::uint64_t count = 0;
        std::uint32_t At(std::uint64_t i) const {
            return list.empty() ? static_cast<std::uint32_t>(first + i) : list[i];
        }
        std::uint64_t Size() const { return count; }
    };

    // Follows the chain that holds `size` bytes. A chain that leaves the file, loops, runs into another
    // chain or ends early gives STG_E_DOCFILECORRUPT; a chain longer than needed is accepted.
    // owner identifies the chain so that shared sectors are noticed (0 = do not track).
    HRESULT Resolve(std::uint32_t start, std::uint64_t size, bool mini, std::uint32_t owner, Chain& chain);
    // Reads bytes [offset, offset+count) of a resolved chain.
    HRESULT Read(const Chain& chain, bool mini, std::uint64_t offset, void* buffer, std::size_t count);
    // Installs the mini stream's chain when the writer already knows it.
    void SetMiniChain(Chain chain);

    // Reads whole sectors; bytes past the end of a short last sector read as zero.
    HRESULT ReadSector(std::uint32_t sector, unsigned char* out);

    // Marks a sector as belonging to `owner`; false when it already belongs to a chain.
    bool Claim(std::uint32_t sector, std::uint32_t owner);

private:
    HRESULT MiniChain(const Chain** chain);
    HRESULT Walk(std::uint32_t start, std::uint64_t size, bool mini, std::uint32_t owner, Chain& chain);

    std::vector<std::uint32_t> m_owner;
    std::vector<std::uint32_t> m_miniOwner;
    // Per stream owner: 0 not resolved yet, 1 resolved whole, 2 found broken. A tree read afresh
    // resolves the same chains again, which must neither trip over their own claims nor pass a
    // chain that failed before.
    std::vector<std::uint8_t> m_settled;
    Chain m_miniChain;
    bool m_miniResolved = false;
    HRESULT m_miniHr = S_OK;
};

// Owners of the chains that are not streams; streams use their directory index + 1.
constexpr std::uint32_t kOwnerTables = 0xFFFFFF01;
constexpr std::uint32_t kOwnerDirectory = 0xFFFFFF02;
constexpr std::uint32_t kOwnerMiniFat = 0xFFFFFF03;
constexpr std::uint32_t kOwnerMiniStream = 0xFFFFFF04;

// Bytes of one stream version. Shared between trees (a transacted copy and its parent) until one side
// writes; a writer first takes a private copy (copy on write).
struct StreamContent {
    std::uint64_t size = 0;
    ByteBuffer data;  // the bytes, when not in a backing file
    std::shared_ptr<Backing> backing;
    std::uint32_t start = cfb::ENDOFCHAIN;
    bool mini = false;
    std::uint32_t owner = 0;
    Backing::Chain chain;
    bool resolved = false;
    HRESULT resolveHr = S_OK;

    // Reads up to count bytes at offset; *got tells how many (0 at or past the end).
    HRESULT Read(std::uint64_t offset, void* buffer, std::size_t count, std::size_t* got);
    HRESULT Resolve();
};

struct Node;
using NodePtr = std::shared_ptr<Node>;

// A storage's elements in name order. The keys view each node's own name, so a large store keeps one
// copy of every name; elements go in only through Insert, which takes the key from the node, and a node
// is renamed only while it is out. Version() changes whenever an element comes or goes, so that an
// enumerator can tell whether the place it remembers is still there.
class Children {
    using Map = std::map<std::u16string_view, NodePtr, cfb::NameLess,
                         PoolAllocator<std::pair<const std::u16string_view, NodePtr>>>;

public:
    using iterator = Map::iterator;
    using const_iterator = Map::const_iterator;

    Children() = default;
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;
    Children& operator=(Children&& other) noexcept {
        m_map = std::move(other.m_map);
        other.m_map.clear();
        ++m_version;
        ++other.m_version;
        return *this;
    }

    iterator begin() { return m_map.begin(); }
    iterator end() { return m_map.end(); }
    const_iterator begin() const { return m_map.begin(); }
    const_iterator end() const { return m_map.end(); }
    bool empty() const { return m_map.empty(); }
    std::size_t size() const { return m_map.size(); }
    iterator find(std::u16string_view name) { return m_map.find(name); }
    const_iterator find(std::u16string_view name) const { return m_map.find(name); }
    const_iterator upper_bound(std::u16string_view name) const { return m_map.upper_bound(name); }
    std::uint64_t Version() const { return m_version; }

    // False (and the node not taken) when an element of that name is already there.
    bool Insert(NodePtr node);
    // For elements arriving in name order.
    void InsertLast(NodePtr node);
    iterator erase(iterator it) {
        ++m_version;
        return m_map.erase(it);
    }
    void clear() {
        ++m_version;
        m_map.clear();
    }

private:
    Map m_map;
    std::uint64_t m_version = 0;
};

struct Node {
    std::u16string name;
    std::uint8_t type = cfb::kTypeStream;  // kTypeStorage, kTypeStream or kTypeRoot
    CLSID clsid = CLSID_NULL;
    std::uint32_t stateBits = 0;
    std::uint64_t ctime = 0;
    std::uint64_t mtime = 0;
    std::shared_ptr<StreamContent> content;  // streams
    Children children;                       // storages
    bool open = false;                       // a handle is open on it (share mode exclusive)
    bool dead = false;                       // removed from its tree: handles on it are reverted

    bool IsStorage() const { return type != cfb::kTypeStream; }
    std::uint64_t Size() const { return content ? content->size : 0; }
};

inline bool Children::Insert(NodePtr node) {
    std::u16string_view key = node->name;
    if (!m_map.emplace(key, std::move(node)).second) return false;
    ++m_version;
    return true;
}

inline void Children::InsertLast(NodePtr node) {
    std::u16string_view key = node->name;
    m_map.emplace_hint(m_map.end(), key, std::move(node));
    ++m_version;
}

inline NodePtr MakeNode() { return std::allocate_shared<Node>(PoolAllocator<Node>()); }
template <class... Args>
std::shared_ptr<StreamContent> MakeContent(Args&&... args) {
    return std::allocate_shared<StreamContent>(PoolAllocator<StreamContent>(), std::forward<Args>(args)...);
}

// A copy of the subtree; stream bytes are shared until written. With separateContents the streams get
// their own content records, so that a commit of another file cannot repoint them (bytes in memory are
// copied, bytes in a file still read from it).
NodePtr CloneTree(const Node& node, bool separateContents = false);
// Marks the node and everything under it as removed.
void KillTree(Node& node);
// True when `inner` is `outer` or lies under it.
bool Contains(const Node& outer, const Node* inner);

// Parses a compound file. Fails with the codes StgOpenStorage gives.
HRESULT ReadCompoundFile(std::unique_ptr<ByteStore> store, std::shared_ptr<Backing>& backing, NodePtr& root);
// The tree of a file version read before (or written by us) once more, afresh.
HRESULT ReadTree(const std::shared_ptr<Backing>& backing, NodePtr& root);

// Result of writing a tree: the tables of the new file, to rebind the written streams to it once the
// file is in place.
struct WrittenFile {
    std::shared_ptr<Backing> backing;  // store not set yet
    struct Placement {
        std::shared_ptr<StreamContent> content;
        std::uint32_t start;
        std::uint32_t count;
        bool mini;
    };
    std::vector<Placement> placements;
    Backing::Chain miniChain;
};

// Writes the whole tree as a version 3 file to fd (positioned at 0) through the system-call table.
HRESULT WriteCompoundFile(const Node& root, int fd, WrittenFile& out);
// Points the written streams at the new file and lets go of their in-memory bytes.
void RebindWritten(WrittenFile& written, std::unique_ptr<ByteStore> store);

HRESULT ErrnoToStg(int error, HRESULT fallback);

}  // namespace tavik::platform
