// Parsing a compound file: header, allocation tables and directory up front; stream bytes later.
// Strict on structure (every chain bounded, no cycles, ids in range), lenient on what real writers get
// wrong (colours, sibling order, storage start fields, times, free-entry links, oversized tables).
#include <cstring>

#include "platform/compound/internal/Tree.h"

namespace tavik::platform {
namespace {

using namespace cfb;

// Deeper nesting than any real document; bounds the recursion of the tree helpers.
constexpr std::size_t kMaxDepth = 512;

struct DirEntry {
    std::u16string name;
    std::uint8_t type;
    std::uint32_t left, right, child, start, stateBits;
    std::uint64_t size, ctime, mtime;
    CLSID clsid;
};

CLSID GetClsid(const unsigned char* p) {
    CLSID c;
    c.Data1 = Get32(p);
    c.Data2 = Get16(p + 4);
    c.Data3 = Get16(p + 6);
    std::memcpy(c.Data4, p + 8, 8);
    return c;
}

DirEntry ParseEntry(const unsigned char* p, bool v3) {
    DirEntry e;
    std::uint16_t nameBytes = Get16(p + 0x40);
    std::size_t units = nameBytes >= 2 ? std::min<std::size_t>(nameBytes / 2 - 1, kMaxNameUnits) : 0;
    for (std::size_t i = 0; i < units; ++i) {
        char16_t c = static_cast<char16_t>(Get16(p + 2 * i));
        if (c == 0) break;
        e.name.push_back(c);
    }
    e.type = p[0x42];
    e.left = Get32(p + 0x44);
    e.right = Get32(p + 0x48);
    e.child = Get32(p + 0x4C);
    e.clsid = GetClsid(p + 0x50);
    e.stateBits = Get32(p + 0x60);
    e.ctime = Get64(p + 0x64);
    e.mtime = Get64(p + 0x6C);
    e.start = Get32(p + 0x74);
    // Old writers left garbage in the high half of a version 3 size.
    e.size = v3 ? Get32(p + 0x78) : Get64(p + 0x78);
    return e;
}

// Walks a table chain of unknown length (directory, MiniFAT) until its end mark.
HRESULT WalkChain(Backing& b, std::uint32_t start, std::uint32_t owner, std::vector<std::uint32_t>& chain) {
    std::uint32_t s = start;
    while (s != ENDOFCHAIN) {
        if (s >= b.fileSectors || s >= b.fat.size() || !b.Claim(s, owner)) return STG_E_DOCFILECORRUPT;
        chain.push_back(s);
        s = b.fat[s];
    }
    return S_OK;
}

// Builds the tree from the directory held in `chain`; stream bytes stay in the backing's file.
HRESULT BuildTree(const std::shared_ptr<Backing>& backing, const std::vector<std::uint32_t>& chain, bool v3,
                  NodePtr& rootOut) {
    Backing& b = *backing;
    std::vector<DirEntry, LargeAllocator<DirEntry>> entries;
    const std::uint32_t perDirSector = b.SectorSize() / kDirEntrySize;
    std::vector<unsigned char> sector(b.SectorSize());
    HRESULT hr;
    entries.reserve(chain.size() * perDirSector);
    for (std::uint32_t s : chain) {
        hr = b.ReadSector(s, sector.data());
        if (FAILED(hr)) return hr;
        for (std::uint32_t i = 0; i < perDirSector; ++i)
            entries.push_back(ParseEntry(sector.data() + i * kDirEntrySize, v3));
    }
    // The root is the first root-typed entry; normally entry 0.
    std::uint32_t rootId = 0;
    while (rootId < entries.size() && entries[rootId].type != kTypeRoot) ++rootId;
    if (rootId == entries.size()) return STG_E_DOCFILECORRUPT;
    const DirEntry& re = entries[rootId];
    b.miniStart = re.start;
    b.miniSize = re.size;

    NodePtr root = MakeNode();
    root->name = re.name;
    root->type = kTypeRoot;
    root->clsid = re.clsid;
    root->stateBits = re.stateBits;
    root->ctime = re.ctime;
    root->mtime = re.mtime;

    // Each entry may be reached once; a second visit is a cycle or a shared subtree.
    std::vector<bool> seen(entries.size(), false);
    seen[rootId] = true;
    struct Pending {
        Node* storage;
        std::uint32_t child;
        std::size_t depth;
    };
    std::vector<Pending> storages{{root.get(), re.child, 0}};
    std::vector<std::uint32_t> stack;
    while (!storages.empty()) {
        Pending p = storages.back();
        storages.pop_back();
        if (p.depth > kMaxDepth) return STG_E_DOCFILECORRUPT;
        stack.assign(1, p.child);
        while (!stack.empty()) {
            std::uint32_t id = stack.back();
            stack.pop_back();
            if (id == NOSTREAM) continue;
            if (id >= entries.size() || seen[id]) return STG_E_DOCFILECORRUPT;
            seen[id] = true;
            DirEntry& e = entries[id];
            if (e.type != kTypeStorage && e.type != kTypeStream) return STG_E_DOCFILECORRUPT;
            stack.push_back(e.left);
            stack.push_back(e.right);
            auto node = MakeNode();
            node->name = std::move(e.name);  // each entry is visited once
            node->type = e.type;
            node->clsid = e.clsid;
            node->stateBits = e.stateBits;
            node->ctime = e.ctime;
            node->mtime = e.mtime;
            if (e.type == kTypeStream) {
                auto c = MakeContent();
                c->size = e.size;
                if (e.size > 0) {
                    c->backing = backing;
                    c->start = e.start;
                    c->mini = e.size < kMiniCutoff;
                    c->owner = id + 1;
                }
                node->content = std::move(c);
            }
            // A duplicate name (case-blind) in a damaged file: the first one found wins.
            Node* raw = node.get();
            if (p.storage->children.Insert(std::move(node)) && e.type == kTypeStorage)
                storages.push_back({raw, e.child, p.depth + 1});
        }
    }
    rootOut = std::move(root);
    return S_OK;
}

}  // namespace

HRESULT ReadCompoundFile(std::unique_ptr<ByteStore> store, std::shared_ptr<Backing>& backingOut,
                         NodePtr& rootOut) {
    unsigned char h[kHeaderSize];
    const std::uint64_t fileSize = store->Size();
    if (fileSize < kHeaderSize) return STG_E_FILEALREADYEXISTS;
    long long got = store->ReadAt(0, h, kHeaderSize);
    if (got < 0) return STG_E_READFAULT;
    if (got < static_cast<long long>(kHeaderSize)) return STG_E_FILEALREADYEXISTS;
    if (std::memcmp(h, kBetaSignature, 8) == 0) return STG_E_OLDFORMAT;
    if (std::memcmp(h, kSignature, 8) != 0) return STG_E_FILEALREADYEXISTS;
    const std::uint16_t shift = Get16(h + 0x1E);
    if ((shift != 9 && shift != 12) || Get16(h + 0x20) != 6 || Get32(h + 0x38) != kMiniCutoff)
        return STG_E_FILEALREADYEXISTS;

    auto b = std::make_shared<Backing>();
    b->store = std::move(store);
    b->sectorShift = shift;
    const std::uint32_t ss = b->SectorSize();
    const bool v3 = shift == 9;
    b->fileSectors = fileSize > ss ? (fileSize - ss + ss - 1) / ss : 0;
    const std::uint32_t perSector = ss / 4;

    // FAT sectors: the first 109 listed in the header, the rest in the DIFAT chain.
    const std::uint32_t fatCount = Get32(h + 0x2C);
    if (fatCount > b->fileSectors) return STG_E_DOCFILECORRUPT;
    std::vector<std::uint32_t> fatSectors;
    fatSectors.reserve(fatCount);
    for (std::uint32_t i = 0; i < kHeaderDifatSlots && fatSectors.size() < fatCount; ++i)
        fatSectors.push_back(Get32(h + 0x4C + 4 * i));
    std::vector<unsigned char> sector(ss);
    std::uint32_t difat = Get32(h + 0x44);
    std::uint32_t difatCount = Get32(h + 0x48);
    while (fatSectors.size() < fatCount) {
        if (difatCount-- == 0 || difat >= b->fileSectors || !b->Claim(difat, kOwnerTables))
            return STG_E_DOCFILECORRUPT;
        HRESULT hr = b->ReadSector(difat, sector.data());
        if (FAILED(hr)) return hr;
        for (std::uint32_t i = 0; i + 1 < perSector && fatSectors.size() < fatCount; ++i)
            fatSectors.push_back(Get32(sector.data() + 4 * i));
        difat = Get32(sector.data() + 4 * (perSector - 1));
    }
    b->fat.reserve(static_cast<std::size_t>(fatCount) * perSector);
    for (std::uint32_t fs : fatSectors) {
        if (fs >= b->fileSectors || !b->Claim(fs, kOwnerTables)) return STG_E_DOCFILECORRUPT;
        HRESULT hr = b->ReadSector(fs, sector.data());
        if (FAILED(hr)) return hr;
        for (std::uint32_t i = 0; i < perSector; ++i) b->fat.push_back(Get32(sector.data() + 4 * i));
    }

    std::vector<std::uint32_t> dirChain;
    HRESULT hr = WalkChain(*b, Get32(h + 0x30), kOwnerDirectory, dirChain);
    if (FAILED(hr)) return hr;
    if (dirChain.empty()) return STG_E_DOCFILECORRUPT;
    std::vector<std::uint32_t> miniFatChain;
    hr = WalkChain(*b, Get32(h + 0x3C), kOwnerMiniFat, miniFatChain);
    if (FAILED(hr)) return hr;
    b->miniFat.reserve(miniFatChain.size() * perSector);
    for (std::uint32_t s : miniFatChain) {
        hr = b->ReadSector(s, sector.data());
        if (FAILED(hr)) return hr;
        for (std::uint32_t i = 0; i < perSector; ++i) b->miniFat.push_back(Get32(sector.data() + 4 * i));
    }

    NodePtr root;
    hr = BuildTree(b, dirChain, v3, root);
    if (FAILED(hr)) return hr;
    backingOut = std::move(b);
    rootOut = std::move(root);
    return S_OK;
}

HRESULT ReadTree(const std::shared_ptr<Backing>& backing, NodePtr& rootOut) {
    unsigned char h[kHeaderSize];
    if (backing->store->ReadAt(0, h, kHeaderSize) != static_cast<long long>(kHeaderSize))
        return STG_E_READFAULT;
    // Walked unclaimed: this version's chains were checked when it was first read or written. The walk is
    // still bounded, as a cycle would be.
    std::vector<std::uint32_t> chain;
    for (std::uint32_t s = Get32(h + 0x30); s != ENDOFCHAIN; s = backing->fat[s]) {
        if (s >= backing->fileSectors || s >= backing->fat.size() || chain.size() >= backing->fileSectors)
            return STG_E_DOCFILECORRUPT;
        chain.push_back(s);
    }
    return BuildTree(backing, chain, backing->sectorShift == 9, rootOut);
}

}  // namespace tavik::platform
