// Writing a tree as a fresh version 3 file in one sequential pass: header, directory, MiniFAT, mini
// stream, large streams, FAT, DIFAT. Every chain is contiguous, so the file is compact and the tables are
// computed before the first byte goes out.
#include <sys/uio.h>

#include <bit>
#include <cerrno>
#include <cstring>

#include "platform/compound/internal/Tree.h"
#include "platform/internal/SystemCalls.h"

namespace tavik::platform {
namespace {

using namespace cfb;
using tavik::platform::Sys;

constexpr int kMaxIoPieces = 1024;  // what one writev takes on Linux (IOV_MAX)

constexpr std::uint32_t kSector = 512;
constexpr std::uint32_t kPerSector = kSector / 4;

std::uint64_t Ceil(std::uint64_t a, std::uint64_t b) { return (a + b - 1) / b; }

// Small pieces are gathered in a buffer; the bytes of streams held in memory go out from where they are
// (a gathered write), so that a commit does not copy 100 MB of new mail once more on its way out.
class SequentialWriter {
public:
    explicit SequentialWriter(int fd) : m_fd(fd) {
        m_buffer.reserve(kBuffer);
        m_pieces.reserve(kMaxIoPieces);
    }
    HRESULT Put(const void* data, std::size_t n) {
        const auto* p = static_cast<const unsigned char*>(data);
        while (n > 0) {
            std::size_t take = std::min(n, kBuffer - m_buffer.size());
            m_buffer.insert(m_buffer.end(), p, p + take);
            p += take;
            n -= take;
            if (m_buffer.size() == kBuffer) {
                HRESULT hr = Flush();
                if (FAILED(hr)) return hr;
            }
        }
        return S_OK;
    }
    // Like Put, but the caller keeps the bytes alive and unchanged until the last Flush.
    HRESULT Refer(const void* data, std::size_t n) {
        if (n < kReferMin) return Put(data, n);
        // Room for a buffer piece before, this one, and a buffer piece after.
        if (m_pieces.size() + 3 > static_cast<std::size_t>(kMaxIoPieces)) {
            HRESULT hr = Flush();
            if (FAILED(hr)) return hr;
        }
        CloseSegment();
        m_pieces.push_back({static_cast<const unsigned char*>(data), 0, n});
        m_referred += n;
        return m_referred >= kBuffer ? Flush() : S_OK;
    }
    HRESULT Zeros(std::size_t n) {
        static const unsigned char zero[kSector] = {};
        while (n > 0) {
            std::size_t take = std::min<std::size_t>(n, kSector);
            HRESULT hr = Put(zero, take);
            if (FAILED(hr)) return hr;
            n -= take;
        }
        return S_OK;
    }
    HRESULT Flush() {
        CloseSegment();
        HRESULT hr = WritePieces();
        m_pieces.clear();
        m_buffer.clear();
        m_segment = 0;
        m_referred = 0;
        return hr;
    }
    // Room for n bytes at the end of the buffer, to be filled by the caller (n < the buffer size).
    HRESULT Reserve(std::size_t n, unsigned char** at) {
        if (m_buffer.size() + n > kBuffer) {
            HRESULT hr = Flush();
            if (FAILED(hr)) return hr;
        }
        std::size_t old = m_buffer.size();
        m_buffer.resize(old + n);
        *at = m_buffer.data() + old;
        return S_OK;
    }

    static constexpr std::size_t kBuffer = 1 << 20;

private:
    static constexpr std::size_t kReferMin = 4096;
    struct Piece {
        const unsigned char* outside;  // null: bytes [offset, offset + length) of the buffer
        std::size_t offset;
        std::size_t length;
    };

    void CloseSegment() {
        if (m_buffer.size() > m_segment) {
            m_pieces.push_back({nullptr, m_segment, m_buffer.size() - m_segment});
            m_segment = m_buffer.size();
        }
    }

    HRESULT WritePieces() {
        m_io.clear();
        for (const Piece& p : m_pieces)
            m_io.push_back(
                {const_cast<unsigned char*>(p.outside ? p.outside : m_buffer.data() + p.offset), p.length});
        std::size_t first = 0;
        while (first < m_io.size()) {
            ssize_t n = Sys().writev(m_fd, m_io.data() + first, static_cast<int>(m_io.size() - first));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return ErrnoToStg(errno, STG_E_WRITEFAULT);
            if (n == 0) return STG_E_MEDIUMFULL;
            // A short write is continued from the first byte that did not go out.
            auto done = static_cast<std::size_t>(n);
            while (first < m_io.size() && done >= m_io[first].iov_len) done -= m_io[first++].iov_len;
            if (done > 0) {
                m_io[first].iov_base = static_cast<unsigned char*>(m_io[first].iov_base) + done;
                m_io[first].iov_len -= done;
            }
        }
        return S_OK;
    }

    int m_fd;
    std::vector<unsigned char> m_buffer;  // reserved once and never grown, so pieces may point into it
    std::size_t m_segment = 0;            // start of the buffered bytes not yet in a piece
    std::size_t m_referred = 0;           // bytes in outside pieces since the last flush
    std::vector<Piece> m_pieces;
    std::vector<iovec> m_io;
};

struct Entry {
    const Node* node;
    std::uint32_t left = NOSTREAM, right = NOSTREAM, child = NOSTREAM;
    std::uint8_t colour = 1;  // black
    std::uint32_t start = ENDOFCHAIN;
    std::uint64_t size = 0;
};

// Builds a balanced sibling tree over ids[lo, hi) (sorted by name) and returns its root. Every node at
// the deepest level is red and every other black: black heights then agree and no red node has a red
// child, whatever the count.
std::uint32_t BuildTree(std::vector<Entry>& entries, const std::vector<std::uint32_t>& ids, std::size_t lo,
                        std::size_t hi, int depth, int deepest) {
    if (lo >= hi) return NOSTREAM;
    std::size_t mid = lo + (hi - lo) / 2;
    std::uint32_t id = ids[mid];
    entries[id].colour = (depth == deepest && depth > 0) ? 0 : 1;
    entries[id].left = BuildTree(entries, ids, lo, mid, depth + 1, deepest);
    entries[id].right = BuildTree(entries, ids, mid + 1, hi, depth + 1, deepest);
    return id;
}

int TreeHeight(std::size_t n) {
    int h = 0;
    while (n > 0) {
        n = (n - 1) - (n - 1) / 2;  // the larger half
        ++h;
    }
    return h;
}

void PutEntry(unsigned char* p, const Entry& e) {
    std::memset(p, 0, kDirEntrySize);
    const Node& n = *e.node;
    for (std::size_t i = 0; i < n.name.size() && i < kMaxNameUnits; ++i) Put16(p + 2 * i, n.name[i]);
    Put16(p + 0x40, static_cast<std::uint16_t>((std::min(n.name.size(), kMaxNameUnits) + 1) * 2));
    p[0x42] = n.type;
    p[0x43] = e.colour;
    Put32(p + 0x44, e.left);
    Put32(p + 0x48, e.right);
    Put32(p + 0x4C, e.child);
    if (n.IsStorage()) {
        Put32(p + 0x50, n.clsid.Data1);
        Put16(p + 0x54, n.clsid.Data2);
        Put16(p + 0x56, n.clsid.Data3);
        std::memcpy(p + 0x58, n.clsid.Data4, 8);
    }
    Put32(p + 0x60, n.stateBits);
    // Streams and the root carry no times in a conforming file.
    if (n.type == kTypeStorage) {
        Put64(p + 0x64, n.ctime);
        Put64(p + 0x6C, n.mtime);
    }
    Put32(p + 0x74, e.start);
    Put64(p + 0x78, e.size);
}

void PutFreeEntry(unsigned char* p) {
    std::memset(p, 0, kDirEntrySize);
    Put32(p + 0x44, NOSTREAM);
    Put32(p + 0x48, NOSTREAM);
    Put32(p + 0x4C, NOSTREAM);
}

HRESULT CopyContent(SequentialWriter& w, StreamContent& c, std::uint32_t unit) {
    if (!c.backing) {
        HRESULT hr = w.Refer(c.data.data(), c.data.size());
        if (FAILED(hr)) return hr;
    } else {
        // Raw bytes straight across into the output buffer; nothing in them is interpreted.
        const std::uint64_t piece = SequentialWriter::kBuffer / 2;
        for (std::uint64_t off = 0; off < c.size;) {
            std::size_t want = static_cast<std::size_t>(std::min(piece, c.size - off));
            unsigned char* at = nullptr;
            HRESULT hr = w.Reserve(want, &at);
            if (FAILED(hr)) return hr;
            std::size_t got = 0;
            hr = c.Read(off, at, want, &got);
            if (FAILED(hr)) return hr;
            if (got != want) return STG_E_DOCFILECORRUPT;
            off += got;
        }
    }
    std::uint64_t pad = Ceil(c.size, unit) * unit - c.size;
    return w.Zeros(static_cast<std::size_t>(pad));
}

// The tables are little-endian on disk; copy them whole when the machine is too.
void PutTable(SequentialWriter& w, const std::vector<std::uint32_t>& table, HRESULT& hr) {
    if (FAILED(hr)) return;
    if constexpr (std::endian::native == std::endian::little) {
        hr = w.Put(table.data(), table.size() * 4);
        return;
    }
    for (std::size_t i = 0; SUCCEEDED(hr) && i < table.size(); ++i) {
        unsigned char b[4];
        Put32(b, table[i]);
        hr = w.Put(b, 4);
    }
}

}  // namespace

HRESULT WriteCompoundFile(const Node& root, int fd, WrittenFile& out) {
    // Directory ids: the root, then each storage's children together, storages in visiting order.
    std::vector<Entry> entries;
    entries.push_back({&root});
    std::vector<std::uint32_t> ids;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const Node* n = entries[i].node;
        if (!n->IsStorage() || n->children.empty()) continue;
        ids.clear();
        for (const auto& [name, child] : n->children) {
            ids.push_back(static_cast<std::uint32_t>(entries.size()));
            entries.push_back({child.get()});
        }
        entries[i].child = BuildTree(entries, ids, 0, ids.size(), 0, TreeHeight(ids.size()) - 1);
    }

    // Streams under the cutoff go to the mini stream, the others get sectors of their own.
    std::uint64_t miniSectors = 0, bigSectors = 0;
    for (Entry& e : entries) {
        if (e.node->IsStorage()) continue;
        e.size = e.node->Size();
        if (e.size == 0) continue;
        if (e.size < kMiniCutoff) {
            e.start = static_cast<std::uint32_t>(miniSectors);
            miniSectors += Ceil(e.size, kMiniSectorSize);
        } else {
            bigSectors += Ceil(e.size, kSector);
        }
    }
    const std::uint64_t dirSectors = Ceil(entries.size(), kSector / kDirEntrySize);
    const std::uint64_t miniFatSectors = Ceil(miniSectors * 4, kSector);
    const std::uint64_t miniStreamBytes = miniSectors * kMiniSectorSize;
    const std::uint64_t miniStreamSectors = Ceil(miniStreamBytes, kSector);
    const std::uint64_t dataSectors = dirSectors + miniFatSectors + miniStreamSectors + bigSectors;
    // Table sectors describe themselves too: iterate to the fixed point.
    std::uint64_t fatSectors = 0, difatSectors = 0;
    for (;;) {
        std::uint64_t f = Ceil(dataSectors + fatSectors + difatSectors, kPerSector);
        std::uint64_t d = f > kHeaderDifatSlots ? Ceil(f - kHeaderDifatSlots, kPerSector - 1) : 0;
        if (f == fatSectors && d == difatSectors) break;
        fatSectors = f;
        difatSectors = d;
    }
    const std::uint64_t total = dataSectors + fatSectors + difatSectors;
    if ((total + 1) * kSector > kMaxV3FileSize) return STG_E_MEDIUMFULL;

    const std::uint32_t miniFatFirst = static_cast<std::uint32_t>(dirSectors);
    const std::uint32_t miniStreamFirst = static_cast<std::uint32_t>(dirSectors + miniFatSectors);
    std::uint32_t next = static_cast<std::uint32_t>(miniStreamFirst + miniStreamSectors);
    std::vector<std::uint32_t> fat(static_cast<std::size_t>(fatSectors * kPerSector), FREESECT);
    auto chainRun = [&](std::uint32_t first, std::uint64_t count) {
        for (std::uint64_t i = 0; i < count; ++i)
            fat[first + i] = (i + 1 == count) ? ENDOFCHAIN : static_cast<std::uint32_t>(first + i + 1);
    };
    chainRun(0, dirSectors);
    chainRun(miniFatFirst, miniFatSectors);
    chainRun(miniStreamFirst, miniStreamSectors);
    std::vector<std::uint32_t> miniFat(static_cast<std::size_t>(miniFatSectors * kPerSector), FREESECT);
    out.placements.clear();
    for (Entry& e : entries) {
        if (e.node->IsStorage() || e.size == 0) continue;
        if (e.size < kMiniCutoff) {
            std::uint64_t n = Ceil(e.size, kMiniSectorSize);
            for (std::uint64_t i = 0; i < n; ++i)
                miniFat[e.start + i] =
                    (i + 1 == n) ? ENDOFCHAIN : static_cast<std::uint32_t>(e.start + i + 1);
            out.placements.push_back({e.node->content, e.start, static_cast<std::uint32_t>(n), true});
        } else {
            std::uint64_t n = Ceil(e.size, kSector);
            e.start = next;
            chainRun(next, n);
            out.placements.push_back({e.node->content, e.start, static_cast<std::uint32_t>(n), false});
            next += static_cast<std::uint32_t>(n);
        }
    }
    const std::uint32_t fatFirst = next;
    for (std::uint64_t i = 0; i < fatSectors; ++i) fat[fatFirst + i] = FATSECT;
    const std::uint32_t difatFirst = static_cast<std::uint32_t>(fatFirst + fatSectors);
    for (std::uint64_t i = 0; i < difatSectors; ++i) fat[difatFirst + i] = DIFSECT;

    Entry& rootEntry = entries[0];
    rootEntry.start = miniSectors ? miniStreamFirst : ENDOFCHAIN;
    rootEntry.size = miniStreamBytes;

    unsigned char header[kHeaderSize] = {};
    std::memcpy(header, kSignature, 8);
    Put16(header + 0x18, 0x003E);
    Put16(header + 0x1A, 3);
    Put16(header + 0x1C, 0xFFFE);
    Put16(header + 0x1E, 9);
    Put16(header + 0x20, 6);
    Put32(header + 0x2C, static_cast<std::uint32_t>(fatSectors));
    Put32(header + 0x30, 0);
    Put32(header + 0x38, kMiniCutoff);
    Put32(header + 0x3C, miniFatSectors ? miniFatFirst : ENDOFCHAIN);
    Put32(header + 0x40, static_cast<std::uint32_t>(miniFatSectors));
    Put32(header + 0x44, difatSectors ? difatFirst : ENDOFCHAIN);
    Put32(header + 0x48, static_cast<std::uint32_t>(difatSectors));
    for (std::uint32_t i = 0; i < kHeaderDifatSlots; ++i)
        Put32(header + 0x4C + 4 * i, i < fatSectors ? fatFirst + i : FREESECT);

    SequentialWriter w(fd);
    HRESULT hr = w.Put(header, sizeof header);
    unsigned char sector[kSector];
    for (std::uint64_t s = 0; SUCCEEDED(hr) && s < dirSectors; ++s) {
        for (std::uint32_t k = 0; k < kSector / kDirEntrySize; ++k) {
            std::size_t id = s * (kSector / kDirEntrySize) + k;
            if (id < entries.size())
                PutEntry(sector + k * kDirEntrySize, entries[id]);
            else
                PutFreeEntry(sector + k * kDirEntrySize);
        }
        hr = w.Put(sector, kSector);
    }
    PutTable(w, miniFat, hr);
    for (Entry& e : entries)
        if (SUCCEEDED(hr) && !e.node->IsStorage() && e.size > 0 && e.size < kMiniCutoff)
            hr = CopyContent(w, *e.node->content, kMiniSectorSize);
    if (SUCCEEDED(hr)) hr = w.Zeros(static_cast<std::size_t>(miniStreamSectors * kSector - miniStreamBytes));
    for (Entry& e : entries)
        if (SUCCEEDED(hr) && !e.node->IsStorage() && e.size >= kMiniCutoff)
            hr = CopyContent(w, *e.node->content, kSector);
    PutTable(w, fat, hr);
    for (std::uint64_t d = 0; SUCCEEDED(hr) && d < difatSectors; ++d) {
        std::vector<std::uint32_t> slots(kPerSector, FREESECT);
        for (std::uint32_t i = 0; i + 1 < kPerSector; ++i) {
            std::uint64_t f = kHeaderDifatSlots + d * (kPerSector - 1) + i;
            if (f < fatSectors) slots[i] = static_cast<std::uint32_t>(fatFirst + f);
        }
        slots[kPerSector - 1] =
            d + 1 < difatSectors ? static_cast<std::uint32_t>(difatFirst + d + 1) : ENDOFCHAIN;
        PutTable(w, slots, hr);
    }
    if (SUCCEEDED(hr)) hr = w.Flush();
    if (FAILED(hr)) return hr;

    auto b = std::make_shared<Backing>();
    b->sectorShift = 9;
    b->fileSectors = total;
    b->fat = std::move(fat);
    b->miniFat = std::move(miniFat);
    b->miniStart = rootEntry.start;
    b->miniSize = miniStreamBytes;
    out.miniChain = Backing::Chain{};
    out.miniChain.first = miniStreamFirst;
    out.miniChain.count = miniStreamSectors;
    out.backing = std::move(b);
    return S_OK;
}

void RebindWritten(WrittenFile& written, std::unique_ptr<ByteStore> store) {
    written.backing->store = std::move(store);
    written.backing->SetMiniChain(std::move(written.miniChain));
    for (auto& p : written.placements) {
        StreamContent& c = *p.content;
        c.backing = written.backing;
        c.start = p.start;
        c.mini = p.mini;
        c.owner = 0;
        c.chain = Backing::Chain{};
        c.chain.first = p.start;
        c.chain.count = p.count;
        c.resolved = true;
        c.resolveHr = S_OK;
        ByteBuffer().swap(c.data);
    }
    written.placements.clear();
}

}  // namespace tavik::platform
