// IStream over one stream node, and the element enumerator.
#include <cstring>

#include "platform/compound/internal/Handles.h"

namespace tavik::platform {
namespace {

// Streams stay inside what a version 3 file can hold.
constexpr std::uint64_t kMaxStreamSize = 0x7FFFF000ull;

}  // namespace

HRESULT FillStat(const Node& node, STATSTG* stat, DWORD flags, DWORD mode, std::u16string_view name) {
    std::memset(stat, 0, sizeof *stat);
    if (!(flags & STATFLAG_NONAME)) {
        stat->pwcsName = CopyName(name);
        if (!stat->pwcsName) return STG_E_INSUFFICIENTMEMORY;
    }
    stat->type = node.IsStorage() ? STGTY_STORAGE : STGTY_STREAM;
    stat->cbSize.QuadPart = node.Size();
    stat->mtime = {static_cast<DWORD>(node.mtime), static_cast<DWORD>(node.mtime >> 32)};
    stat->ctime = {static_cast<DWORD>(node.ctime), static_cast<DWORD>(node.ctime >> 32)};
    stat->grfMode = mode;
    stat->clsid = node.clsid;
    stat->grfStateBits = node.stateBits;
    return S_OK;
}

StreamImpl::StreamImpl(std::shared_ptr<RootFile> file, NodePtr node, DWORD mode, std::shared_ptr<bool> dirty)
    : m_file(std::move(file)), m_node(std::move(node)), m_mode(mode), m_dirty(std::move(dirty)) {}

StreamImpl::~StreamImpl() {
    m_node->open = false;
    // A large stream's bytes wait for the commit on disk rather than in memory. Small ones go into the
    // mini stream at the commit, a few bytes at a time: they stay.
    StreamContent& c = *m_node->content;
    if (!m_node->dead && !c.backing && c.size >= cfb::kMiniCutoff) m_file->Spill(c);
}

HRESULT StreamImpl::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IStream || riid == IID_ISequentialStream) {
        AddRef();
        *ppv = static_cast<IStream*>(this);
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG StreamImpl::AddRef() { return ++m_refs; }

ULONG StreamImpl::Release() {
    ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
}

HRESULT StreamImpl::Read(void* pv, ULONG cb, ULONG* pcbRead) {
    if (pcbRead) *pcbRead = 0;
    if (!pv && cb) return STG_E_INVALIDPOINTER;
    if (m_node->dead) return STG_E_REVERTED;
    std::size_t got = 0;
    HRESULT hr = m_node->content->Read(m_position, pv, cb, &got);
    if (FAILED(hr)) return hr;
    m_position += got;
    if (pcbRead) *pcbRead = static_cast<ULONG>(got);
    return S_OK;
}

// Gives this stream bytes of its own in memory, copying them out of the file or a shared version.
HRESULT StreamImpl::Own(StreamContent** out) {
    std::shared_ptr<StreamContent>& c = m_node->content;
    if (c->backing || c.use_count() > 1) {
        auto copy = MakeContent();
        copy->size = c->size;
        if (c->backing) {
            HRESULT hr = c->Resolve();  // proves the size is backed by the file before allocating it
            if (FAILED(hr)) return hr;
        }
        copy->data.resize(static_cast<std::size_t>(c->size));
        std::size_t got = 0;
        HRESULT hr = c->Read(0, copy->data.data(), copy->data.size(), &got);
        if (FAILED(hr)) return hr;
        c = std::move(copy);
    }
    *out = c.get();
    return S_OK;
}

HRESULT StreamImpl::Write(const void* pv, ULONG cb, ULONG* pcbWritten) {
    if (pcbWritten) *pcbWritten = 0;
    if (!pv && cb) return STG_E_INVALIDPOINTER;
    if (m_node->dead) return STG_E_REVERTED;
    if ((m_mode & 3) == STGM_READ) return STG_E_ACCESSDENIED;
    if (cb == 0) return S_OK;
    if (m_position + cb > kMaxStreamSize) return STG_E_MEDIUMFULL;
    StreamContent* c = nullptr;
    HRESULT hr = Own(&c);
    if (FAILED(hr)) return hr;
    std::size_t end = static_cast<std::size_t>(m_position + cb);
    const auto* bytes = static_cast<const unsigned char*>(pv);
    if (m_position == c->data.size()) {
        c->data.Append(bytes, cb);  // appending: no zero fill first
    } else {
        if (end > c->data.size()) c->data.resize(end);
        std::memcpy(c->data.data() + m_position, pv, cb);
    }
    c->size = c->data.size();
    m_position = end;
    *m_dirty = true;
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
}

HRESULT StreamImpl::Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) {
    if (m_node->dead) return STG_E_REVERTED;
    long long base;
    switch (origin) {
        case STREAM_SEEK_SET:
            base = 0;
            break;
        case STREAM_SEEK_CUR:
            base = static_cast<long long>(m_position);
            break;
        case STREAM_SEEK_END:
            base = static_cast<long long>(m_node->Size());
            break;
        default:
            return STG_E_INVALIDFUNCTION;
    }
    long long target = base + move.QuadPart;
    if (target < 0) return STG_E_INVALIDFUNCTION;
    m_position = static_cast<std::uint64_t>(target);
    if (newPosition) newPosition->QuadPart = m_position;
    return S_OK;
}

HRESULT StreamImpl::SetSize(ULARGE_INTEGER size) {
    if (m_node->dead) return STG_E_REVERTED;
    if ((m_mode & 3) == STGM_READ) return STG_E_ACCESSDENIED;
    if (size.QuadPart > kMaxStreamSize) return STG_E_MEDIUMFULL;
    if (size.QuadPart == m_node->Size()) return S_OK;
    StreamContent* c = nullptr;
    HRESULT hr = Own(&c);
    if (FAILED(hr)) return hr;
    c->data.resize(static_cast<std::size_t>(size.QuadPart));
    c->size = size.QuadPart;
    *m_dirty = true;
    return S_OK;
}

HRESULT StreamImpl::CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                           ULARGE_INTEGER* pcbWritten) {
    if (pcbRead) pcbRead->QuadPart = 0;
    if (pcbWritten) pcbWritten->QuadPart = 0;
    if (!pstm) return STG_E_INVALIDPOINTER;
    std::vector<unsigned char> buf(64 * 1024);
    std::uint64_t left = cb.QuadPart, readTotal = 0, writtenTotal = 0;
    while (left > 0) {
        ULONG got = 0, put = 0;
        HRESULT hr = Read(buf.data(), static_cast<ULONG>(std::min<std::uint64_t>(left, buf.size())), &got);
        if (FAILED(hr)) return hr;
        if (got == 0) break;
        readTotal += got;
        hr = pstm->Write(buf.data(), got, &put);
        writtenTotal += put;
        if (pcbRead) pcbRead->QuadPart = readTotal;
        if (pcbWritten) pcbWritten->QuadPart = writtenTotal;
        if (FAILED(hr)) return hr;
        left -= got;
    }
    return S_OK;
}

HRESULT StreamImpl::Commit(DWORD) { return m_node->dead ? STG_E_REVERTED : S_OK; }
HRESULT StreamImpl::Revert() { return m_node->dead ? STG_E_REVERTED : S_OK; }
HRESULT StreamImpl::LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) { return STG_E_INVALIDFUNCTION; }
HRESULT StreamImpl::UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) { return STG_E_INVALIDFUNCTION; }

HRESULT StreamImpl::Stat(STATSTG* stat, DWORD flags) {
    if (!stat) return STG_E_INVALIDPOINTER;
    if (m_node->dead) return STG_E_REVERTED;
    return FillStat(*m_node, stat, flags, m_mode, m_node->name);
}

HRESULT StreamImpl::Clone(IStream** ppstm) {
    if (ppstm) *ppstm = nullptr;
    return E_NOTIMPL;
}

EnumImpl::EnumImpl(std::shared_ptr<RootFile> file, NodePtr storage)
    : m_file(std::move(file)), m_storage(std::move(storage)) {}

HRESULT EnumImpl::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IEnumSTATSTG) {
        AddRef();
        *ppv = static_cast<IEnumSTATSTG*>(this);
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG EnumImpl::AddRef() { return ++m_refs; }

ULONG EnumImpl::Release() {
    ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
}

// The next element after the last one returned, so that elements destroyed or added meanwhile do not
// upset the walk.
const Node* EnumImpl::Advance() {
    const Children& children = m_storage->children;
    Children::const_iterator it;
    if (!m_started)
        it = children.begin();
    else if (m_version == children.Version())
        it = std::next(m_at);  // nothing came or went: the remembered place is still valid
    else
        it = children.upper_bound(m_last);
    if (it == children.end()) return nullptr;
    m_started = true;
    m_at = it;
    m_version = children.Version();
    m_last = it->first;
    return it->second.get();
}

HRESULT EnumImpl::Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) {
    if (pceltFetched) *pceltFetched = 0;
    if (!rgelt) return STG_E_INVALIDPOINTER;
    if (m_storage->dead) return STG_E_REVERTED;
    ULONG n = 0;
    while (n < celt) {
        const Node* node = Advance();
        if (!node) break;
        HRESULT hr = FillStat(*node, &rgelt[n], STATFLAG_DEFAULT, 0, node->name);
        if (FAILED(hr)) {
            for (ULONG i = 0; i < n; ++i) CoTaskMemFree(rgelt[i].pwcsName);
            return hr;
        }
        ++n;
    }
    if (pceltFetched) *pceltFetched = n;
    return n == celt ? S_OK : S_FALSE;
}

HRESULT EnumImpl::Skip(ULONG celt) {
    if (m_storage->dead) return STG_E_REVERTED;
    for (ULONG i = 0; i < celt; ++i)
        if (!Advance()) return S_FALSE;
    return S_OK;
}

HRESULT EnumImpl::Reset() {
    m_started = false;
    m_last.clear();
    return S_OK;
}

HRESULT EnumImpl::Clone(IEnumSTATSTG** ppenum) {
    if (!ppenum) return STG_E_INVALIDPOINTER;
    auto* copy = new EnumImpl(m_file, m_storage);
    copy->m_last = m_last;
    copy->m_started = m_started;
    copy->m_at = m_at;
    copy->m_version = m_version;
    *ppenum = copy;
    return S_OK;
}

}  // namespace tavik::platform
