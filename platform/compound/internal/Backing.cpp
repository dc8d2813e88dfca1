// Reading stream bytes out of a compound file, chain by chain, with every chain bounded by the file.
#include <cerrno>
#include <cstring>

#include "platform/compound/internal/Tree.h"
#include "platform/internal/OsErrors.h"
#include "platform/internal/SystemCalls.h"

namespace tavik::platform {
namespace {

using tavik::platform::Sys;

class MemoryStore final : public ByteStore {
public:
    explicit MemoryStore(std::vector<unsigned char> bytes) : m_bytes(std::move(bytes)) {}
    long long ReadAt(std::uint64_t offset, void* buffer, std::size_t count) override {
        if (offset >= m_bytes.size()) return 0;
        std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, m_bytes.size() - offset));
        std::memcpy(buffer, m_bytes.data() + offset, n);
        return static_cast<long long>(n);
    }
    std::uint64_t Size() const override { return m_bytes.size(); }

private:
    std::vector<unsigned char> m_bytes;
};

// Reads go through a cache of small blocks. Loading a store's records jumps about its mini stream
// (records are stored in name order and read in their index's order), so a block is one page: a jump
// costs little, and the cache holds a good part of the mini stream. Opening a file reads its directory
// front to back; a miss right after the previous one reads the next blocks in the same call. A file
// version never changes once written (commits write new files), so the cache cannot go stale.
class FileStore final : public ByteStore {
public:
    explicit FileStore(int fd) : m_fd(fd) {
        struct stat st {};
        if (Sys().fstat(fd, &st) == 0) m_size = static_cast<std::uint64_t>(st.st_size);
    }
    ~FileStore() override { Sys().close(m_fd); }
    long long ReadAt(std::uint64_t offset, void* buffer, std::size_t count) override {
        if (offset >= m_size) return 0;
        count = static_cast<std::size_t>(std::min<std::uint64_t>(count, m_size - offset));
        auto* out = static_cast<unsigned char*>(buffer);
        // Large reads skip the cache.
        if (count >= kAhead * kBlock) return Direct(offset, out, count);
        std::size_t done = 0;
        while (done < count) {
            std::uint64_t at = offset + done;
            Block* b = Find(at / kBlock);
            if (!b) return -1;
            std::size_t within = static_cast<std::size_t>(at % kBlock);
            if (within >= b->length) break;
            std::size_t take = std::min(count - done, b->length - within);
            std::memcpy(out + done, m_memory.data() + (b - m_blocks) * kBlock + within, take);
            done += take;
        }
        return static_cast<long long>(done);
    }
    std::uint64_t Size() const override { return m_size; }

private:
    static constexpr std::size_t kBlock = 4096;
    static constexpr std::size_t kBlocks = 256;
    static constexpr std::size_t kAhead = 16;  // blocks read at once on a run of misses
    struct Block {
        std::uint64_t index = ~0ull;
        std::size_t length = 0;
    };

    long long Direct(std::uint64_t offset, unsigned char* out, std::size_t count) {
        std::size_t done = 0;
        while (done < count) {
            ssize_t n = Sys().pread(m_fd, out + done, count - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return -1;
            if (n == 0) break;
            done += static_cast<std::size_t>(n);
        }
        return static_cast<long long>(done);
    }

    // Direct-mapped: a block has one slot, so finding it costs nothing, and blocks that follow each
    // other have slots that follow each other, so one read fills several.
    Block* Find(std::uint64_t index) {
        const std::size_t slot = static_cast<std::size_t>(index % kBlocks);
        Block& b = m_blocks[slot];
        if (b.index == index) return &b;
        if (m_memory.empty()) m_memory.resize(kBlock * kBlocks);
        std::size_t count = 1;
        if (index == m_lastMiss + 1) count = std::min(kAhead, kBlocks - slot);
        m_lastMiss = index + count - 1;
        long long n = Direct(index * kBlock, m_memory.data() + slot * kBlock, count * kBlock);
        if (n < 0) {
            for (std::size_t i = 0; i < count; ++i) m_blocks[slot + i].index = ~0ull;
            return nullptr;
        }
        std::size_t left = static_cast<std::size_t>(n);
        for (std::size_t i = 0; i < count; ++i) {
            m_blocks[slot + i].index = index + i;
            m_blocks[slot + i].length = std::min(left, kBlock);
            left -= m_blocks[slot + i].length;
        }
        return &b;
    }

    int m_fd;
    std::uint64_t m_size = 0;
    std::uint64_t m_lastMiss = ~0ull - 1;
    std::vector<unsigned char> m_memory;
    Block m_blocks[kBlocks];
};

// Written in pieces while it is read, so nothing is cached.
class ScratchStore final : public ByteStore {
public:
    explicit ScratchStore(int fd) : m_fd(fd) {}
    ~ScratchStore() override { Sys().close(m_fd); }
    long long ReadAt(std::uint64_t offset, void* buffer, std::size_t count) override {
        if (offset >= m_size) return 0;
        count = static_cast<std::size_t>(std::min<std::uint64_t>(count, m_size - offset));
        auto* out = static_cast<unsigned char*>(buffer);
        std::size_t done = 0;
        while (done < count) {
            ssize_t n = Sys().pread(m_fd, out + done, count - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return -1;
            if (n == 0) break;
            done += static_cast<std::size_t>(n);
        }
        return static_cast<long long>(done);
    }
    std::uint64_t Size() const override { return m_size; }
    bool WriteAt(std::uint64_t offset, const void* data, std::size_t count) override {
        const auto* in = static_cast<const unsigned char*>(data);
        std::size_t done = 0;
        while (done < count) {
            ssize_t n = Sys().pwrite(m_fd, in + done, count - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        m_size = std::max(m_size, offset + count);
        return true;
    }

private:
    int m_fd;
    std::uint64_t m_size = 0;
};

}  // namespace

std::unique_ptr<ByteStore> MakeScratchStore(int fd) { return std::make_unique<ScratchStore>(fd); }

std::unique_ptr<ByteStore> MakeMemoryStore(std::vector<unsigned char> bytes) {
    return std::make_unique<MemoryStore>(std::move(bytes));
}
std::unique_ptr<ByteStore> MakeFileStore(int fd) { return std::make_unique<FileStore>(fd); }

HRESULT ErrnoToStg(int error, HRESULT fallback) {
    namespace os = tavik::platform;
    switch (os::Win32ErrorFromErrno(error)) {
        case ERROR_FILE_NOT_FOUND:
            return STG_E_FILENOTFOUND;
        case ERROR_PATH_NOT_FOUND:
            return STG_E_PATHNOTFOUND;
        case ERROR_ACCESS_DENIED:
            return STG_E_ACCESSDENIED;
        case os::ERROR_WRITE_PROTECT:
            return STG_E_DISKISWRITEPROTECTED;
        case os::ERROR_DISK_FULL:
        case os::ERROR_FILE_TOO_LARGE:
            return STG_E_MEDIUMFULL;
        case os::ERROR_TOO_MANY_OPEN_FILES:
            return STG_E_TOOMANYOPENFILES;
        case ERROR_NOT_ENOUGH_MEMORY:
            return STG_E_INSUFFICIENTMEMORY;
        case os::ERROR_SHARING_VIOLATION:
            return STG_E_SHAREVIOLATION;
        default:
            return fallback;
    }
}

bool Backing::Claim(std::uint32_t sector, std::uint32_t owner) {
    if (owner == 0) return true;
    if (m_owner.empty()) m_owner.assign(static_cast<std::size_t>(fileSectors), 0);
    std::uint32_t& slot = m_owner[sector];
    if (slot != 0) return false;
    slot = owner;
    return true;
}

HRESULT Backing::ReadSector(std::uint32_t sector, unsigned char* out) {
    const std::uint32_t ss = SectorSize();
    long long n = store->ReadAt(SectorOffset(sector), out, ss);
    if (n < 0) return STG_E_READFAULT;
    if (static_cast<std::uint64_t>(n) < ss) std::memset(out + n, 0, ss - static_cast<std::size_t>(n));
    return S_OK;
}

void Backing::SetMiniChain(Chain chain) {
    m_miniChain = std::move(chain);
    m_miniResolved = true;
    m_miniHr = S_OK;
}

HRESULT Backing::MiniChain(const Chain** chain) {
    if (!m_miniResolved) {
        m_miniResolved = true;
        m_miniHr = Walk(miniStart, miniSize, false, kOwnerMiniStream, m_miniChain);
    }
    *chain = &m_miniChain;
    return m_miniHr;
}

HRESULT Backing::Resolve(std::uint32_t start, std::uint64_t size, bool mini, std::uint32_t owner,
                         Chain& chain) {
    if (owner == 0 || owner >= kOwnerTables) return Walk(start, size, mini, owner, chain);
    if (m_settled.size() <= owner) m_settled.resize(static_cast<std::size_t>(owner) + 1, 0);
    if (m_settled[owner] == 2) return STG_E_DOCFILECORRUPT;
    HRESULT hr = Walk(start, size, mini, m_settled[owner] == 1 ? 0 : owner, chain);
    m_settled[owner] = SUCCEEDED(hr) ? 1 : 2;
    return hr;
}

HRESULT Backing::Walk(std::uint32_t start, std::uint64_t size, bool mini, std::uint32_t owner, Chain& chain) {
    chain = Chain{};
    if (size == 0) return S_OK;
    const std::uint32_t unit = mini ? cfb::kMiniSectorSize : SectorSize();
    const std::uint64_t needed = (size + unit - 1) / unit;
    const std::vector<std::uint32_t>* table = &fat;
    std::uint64_t limit = fileSectors;
    if (mini) {
        const Chain* miniChain = nullptr;
        HRESULT hr = MiniChain(&miniChain);
        if (FAILED(hr)) return hr;
        table = &miniFat;
        limit =
            std::min<std::uint64_t>(miniChain->Size() * (SectorSize() / unit), (miniSize + unit - 1) / unit);
        if (owner != 0 && m_miniOwner.empty()) m_miniOwner.assign(static_cast<std::size_t>(limit), 0);
    }
    // A size beyond what the file could hold is refused before anything is allocated for it.
    if (needed > limit) return STG_E_DOCFILECORRUPT;
    chain.first = start;
    bool run = true;  // still one run of adjacent sectors: no list needed
    std::uint32_t sector = start;
    for (std::uint64_t i = 0; i < needed; ++i) {
        if (sector >= limit || sector >= table->size()) return STG_E_DOCFILECORRUPT;
        if (owner != 0) {
            if (mini) {
                if (m_miniOwner[sector] != 0) return STG_E_DOCFILECORRUPT;
                m_miniOwner[sector] = owner;
            } else if (!Claim(sector, owner)) {
                return STG_E_DOCFILECORRUPT;
            }
        }
        if (run && sector != start + i) {
            run = false;
            chain.list.reserve(static_cast<std::size_t>(needed));
            for (std::uint64_t k = 0; k < i; ++k) chain.list.push_back(static_cast<std::uint32_t>(start + k));
        }
        if (!run) chain.list.push_back(sector);
        sector = (*table)[sector];
    }
    chain.count = needed;
    return S_OK;
}

HRESULT Backing::Read(const Chain& chain, bool mini, std::uint64_t offset, void* buffer, std::size_t count) {
    const std::uint32_t ss = SectorSize();
    const Chain* miniChain = nullptr;
    if (mini) {
        HRESULT hr = MiniChain(&miniChain);
        if (FAILED(hr)) return hr;
    }
    const std::uint32_t unit = mini ? cfb::kMiniSectorSize : ss;
    auto* out = static_cast<unsigned char*>(buffer);
    // Gather runs of adjacent file bytes so that a contiguous stream costs one read.
    std::uint64_t runStart = 0;
    std::size_t runLen = 0;
    unsigned char* runOut = out;
    auto flush = [&]() -> HRESULT {
        if (runLen == 0) return S_OK;
        long long n = store->ReadAt(runStart, runOut, runLen);
        if (n < 0) return STG_E_READFAULT;
        // A short last sector reads as zeros, as other readers treat it.
        if (static_cast<std::size_t>(n) < runLen)
            std::memset(runOut + n, 0, runLen - static_cast<std::size_t>(n));
        runLen = 0;
        return S_OK;
    };
    while (count > 0) {
        std::uint64_t index = offset / unit;
        std::uint32_t within = static_cast<std::uint32_t>(offset % unit);
        if (index >= chain.Size()) return STG_E_DOCFILECORRUPT;
        std::size_t take = std::min<std::size_t>(count, unit - within);
        std::uint64_t fileOffset;
        if (mini) {
            std::uint64_t miniOffset = static_cast<std::uint64_t>(chain.At(index)) * unit + within;
            std::uint64_t bigIndex = miniOffset / ss;
            if (bigIndex >= miniChain->Size()) return STG_E_DOCFILECORRUPT;
            fileOffset = SectorOffset(miniChain->At(bigIndex)) + miniOffset % ss;
        } else {
            fileOffset = SectorOffset(chain.At(index)) + within;
        }
        if (runLen > 0 && runStart + runLen == fileOffset) {
            runLen += take;
        } else {
            HRESULT hr = flush();
            if (FAILED(hr)) return hr;
            runStart = fileOffset;
            runLen = take;
            runOut = out;
        }
        out += take;
        offset += take;
        count -= take;
    }
    return flush();
}

HRESULT StreamContent::Resolve() {
    if (!resolved) {
        resolved = true;
        resolveHr = backing->Resolve(start, size, mini, owner, chain);
    }
    return resolveHr;
}

HRESULT StreamContent::Read(std::uint64_t offset, void* buffer, std::size_t count, std::size_t* got) {
    *got = 0;
    if (offset >= size || count == 0) return S_OK;
    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(count, size - offset));
    if (!backing) {
        std::memcpy(buffer, data.data() + offset, n);
        *got = n;
        return S_OK;
    }
    HRESULT hr = Resolve();
    if (FAILED(hr)) return hr;
    hr = backing->Read(chain, mini, offset, buffer, n);
    if (FAILED(hr)) return hr;
    *got = n;
    return S_OK;
}

NodePtr CloneTree(const Node& node, bool separateContents) {
    auto copy = MakeNode();
    copy->name = node.name;
    copy->type = node.type;
    copy->clsid = node.clsid;
    copy->stateBits = node.stateBits;
    copy->ctime = node.ctime;
    copy->mtime = node.mtime;
    copy->content = node.content;
    if (separateContents && node.content) {
        // Resolved first, so that the copy does not claim the same sectors a second time.
        if (node.content->backing) node.content->Resolve();
        copy->content = MakeContent(*node.content);
    }
    for (const auto& [name, child] : node.children)
        copy->children.InsertLast(CloneTree(*child, separateContents));
    return copy;
}

void KillTree(Node& node) {
    node.dead = true;
    for (auto& [name, child] : node.children) KillTree(*child);
}

bool Contains(const Node& outer, const Node* inner) {
    if (&outer == inner) return true;
    for (const auto& [name, child] : outer.children)
        if (child->IsStorage() && Contains(*child, inner)) return true;
    return false;
}

}  // namespace tavik::platform
