// IStorage over the in-memory tree. A transacted handle works on a private copy of its element and
// publishes it to the parent's tree at Commit; only the root's Commit touches the disk.
#include <cstring>

#include "platform/Unicode.h"
#include "platform/compound/internal/Handles.h"

namespace tavik::platform {
namespace {

constexpr DWORD kShareMask = 0x70;
constexpr DWORD kAccessMask = 0x3;

// out views the caller's name: it lives as long as the call.
HRESULT CheckName(const OLECHAR* name, std::u16string_view& out) {
    if (!name) return STG_E_INVALIDNAME;
    std::size_t n = 0;
    while (n <= cfb::kMaxNameUnits && name[n]) ++n;
    if (n == 0 || n > cfb::kMaxNameUnits) return STG_E_INVALIDNAME;
    out = std::u16string_view(name, n);
    for (char16_t c : out)
        if (c == u'/' || c == u'\\' || c == u':' || c == u'!') return STG_E_INVALIDNAME;
    return S_OK;
}

// Merges src's elements into dest: streams replace, storages merge, as CopyTo does.
HRESULT MergeInto(const Node& src, Node& dest, bool skipStorages, bool skipStreams, SNB exclude) {
    for (const auto& [name, child] : src.children) {
        if (exclude) {
            bool skip = false;
            for (SNB e = exclude; *e && !skip; ++e) skip = cfb::CompareNames(*e, name) == 0;
            if (skip) continue;
        }
        if ((child->IsStorage() && skipStorages) || (!child->IsStorage() && skipStreams)) continue;
        auto it = dest.children.find(name);
        if (it != dest.children.end()) {
            if (it->second->open) return STG_E_ACCESSDENIED;
            if (child->IsStorage() && it->second->IsStorage()) {
                it->second->clsid = child->clsid;
                HRESULT hr = MergeInto(*child, *it->second, skipStorages, skipStreams, nullptr);
                if (FAILED(hr)) return hr;
                continue;
            }
            KillTree(*it->second);
            dest.children.erase(it);
        }
        NodePtr copy = CloneTree(*child, true);
        if (copy->IsStorage() && (skipStorages || skipStreams)) {
            copy->children.clear();
            HRESULT hr = MergeInto(*child, *copy, skipStorages, skipStreams, nullptr);
            if (FAILED(hr)) return hr;
        }
        dest.children.Insert(std::move(copy));
    }
    return S_OK;
}

}  // namespace

StorageImpl::StorageImpl(std::shared_ptr<RootFile> file, NodePtr node, NodePtr base, DWORD mode, bool root,
                         std::shared_ptr<bool> dirty, std::shared_ptr<bool> parentDirty)
    : m_file(std::move(file)),
      m_node(std::move(node)),
      m_base(std::move(base)),
      m_mode(mode),
      m_root(root),
      m_dirty(std::move(dirty)),
      m_parentDirty(std::move(parentDirty)) {}

StorageImpl::~StorageImpl() {
    if (m_root) {
        // A direct root publishes at its last release, as Windows flushes a direct docfile; the error
        // has nowhere to go.
        if (!(m_mode & STGM_TRANSACTED) && Writable() && *m_dirty && !m_node->dead) m_file->Commit(*m_node);
        // Marking the tree only matters to handles still open on it; with none, skip the walk.
        if (m_file.use_count() > 1) {
            KillTree(*m_node);
            if (m_base) KillTree(*m_base);
        }
    } else if (m_base) {
        // Uncommitted changes of a transacted storage vanish with it.
        KillTree(*m_node);
        m_base->open = false;
    } else {
        m_node->open = false;
    }
}

HRESULT StorageImpl::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IStorage) {
        AddRef();
        *ppv = static_cast<IStorage*>(this);
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

ULONG StorageImpl::AddRef() { return ++m_refs; }

ULONG StorageImpl::Release() {
    ULONG left = --m_refs;
    if (left == 0) delete this;
    return left;
}

HRESULT StorageImpl::CheckChild(const OLECHAR* name, DWORD mode, bool stream, std::u16string_view& key) {
    if (!Usable()) return STG_E_REVERTED;
    HRESULT hr = CheckName(name, key);
    if (FAILED(hr)) return hr;
    if ((mode & kAccessMask) > STGM_READWRITE) return STG_E_INVALIDFLAG;
    if ((mode & kShareMask) != STGM_SHARE_EXCLUSIVE) return STG_E_INVALIDFLAG;
    if (stream && (mode & (STGM_TRANSACTED | STGM_DELETEONRELEASE))) return STG_E_INVALIDFUNCTION;
    if ((mode & kAccessMask) != STGM_READ && !Writable()) return STG_E_ACCESSDENIED;
    return S_OK;
}

IStorage* StorageImpl::MakeChild(const NodePtr& node, DWORD mode) {
    node->open = true;
    if (mode & STGM_TRANSACTED)
        return new StorageImpl(m_file, CloneTree(*node), node, mode, false, std::make_shared<bool>(false),
                               m_dirty);
    return new StorageImpl(m_file, node, nullptr, mode, false, m_dirty, nullptr);
}

HRESULT StorageImpl::Create(const OLECHAR* name, DWORD mode, bool stream, NodePtr& node) {
    std::u16string_view key;
    HRESULT hr = CheckChild(name, mode, stream, key);
    if (FAILED(hr)) return hr;
    if (!Writable()) return STG_E_ACCESSDENIED;
    if (mode & STGM_CONVERT) return STG_E_INVALIDFLAG;
    auto it = m_node->children.find(key);
    if (it != m_node->children.end()) {
        if (!(mode & STGM_CREATE)) return STG_E_FILEALREADYEXISTS;
        if (it->second->open) return STG_E_ACCESSDENIED;
        KillTree(*it->second);
        m_node->children.erase(it);
    }
    node = MakeNode();
    node->name = key;
    if (stream) {
        node->type = cfb::kTypeStream;
        node->content = MakeContent();
    } else {
        node->type = cfb::kTypeStorage;
        node->ctime = node->mtime = NowFileTime();
    }
    m_node->children.Insert(node);
    Touch();
    return S_OK;
}

HRESULT StorageImpl::CreateStream(const OLECHAR* name, DWORD mode, DWORD, DWORD, IStream** ppstm) {
    if (!ppstm) return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    NodePtr node;
    HRESULT hr = Create(name, mode, true, node);
    if (FAILED(hr)) return hr;
    node->open = true;
    *ppstm = new StreamImpl(m_file, node, mode, m_dirty);
    return S_OK;
}

HRESULT StorageImpl::OpenStream(const OLECHAR* name, void*, DWORD mode, DWORD, IStream** ppstm) {
    if (!ppstm) return STG_E_INVALIDPOINTER;
    *ppstm = nullptr;
    std::u16string_view key;
    HRESULT hr = CheckChild(name, mode, true, key);
    if (FAILED(hr)) return hr;
    if (mode & STGM_CREATE) return STG_E_INVALIDFLAG;
    auto it = m_node->children.find(key);
    if (it == m_node->children.end() || it->second->IsStorage()) return STG_E_FILENOTFOUND;
    if (it->second->open) return STG_E_ACCESSDENIED;
    it->second->open = true;
    *ppstm = new StreamImpl(m_file, it->second, mode, m_dirty);
    return S_OK;
}

HRESULT StorageImpl::CreateStorage(const OLECHAR* name, DWORD mode, DWORD, DWORD, IStorage** ppstg) {
    if (!ppstg) return STG_E_INVALIDPOINTER;
    *ppstg = nullptr;
    NodePtr node;
    HRESULT hr = Create(name, mode, false, node);
    if (FAILED(hr)) return hr;
    *ppstg = MakeChild(node, mode);
    return S_OK;
}

HRESULT StorageImpl::OpenStorage(const OLECHAR* name, IStorage* priority, DWORD mode, SNB exclude, DWORD,
                                 IStorage** ppstg) {
    if (!ppstg) return STG_E_INVALIDPOINTER;
    *ppstg = nullptr;
    if (priority) return STG_E_INVALIDFUNCTION;
    if (exclude) return STG_E_INVALIDPARAMETER;
    std::u16string_view key;
    HRESULT hr = CheckChild(name, mode, false, key);
    if (FAILED(hr)) return hr;
    if (mode & STGM_CREATE) return STG_E_INVALIDFLAG;
    auto it = m_node->children.find(key);
    if (it == m_node->children.end() || !it->second->IsStorage()) return STG_E_FILENOTFOUND;
    if (it->second->open) return STG_E_ACCESSDENIED;
    *ppstg = MakeChild(it->second, mode);
    return S_OK;
}

HRESULT StorageImpl::CopyTo(DWORD ciidExclude, const IID* rgiidExclude, SNB snbExclude, IStorage* dest) {
    if (!dest) return STG_E_INVALIDPOINTER;
    if (!Usable()) return STG_E_REVERTED;
    auto* target = dynamic_cast<StorageImpl*>(dest);
    // Every storage in this process comes from this engine; anything else is not supported.
    if (!target) return E_NOTIMPL;
    if (!target->Usable()) return STG_E_REVERTED;
    if (!target->Writable()) return STG_E_ACCESSDENIED;
    if (Contains(*m_node, target->m_node.get())) return STG_E_ACCESSDENIED;
    bool skipStorages = false, skipStreams = false;
    for (DWORD i = 0; rgiidExclude && i < ciidExclude; ++i) {
        if (rgiidExclude[i] == IID_IStorage) skipStorages = true;
        if (rgiidExclude[i] == IID_IStream) skipStreams = true;
    }
    target->m_node->clsid = m_node->clsid;
    HRESULT hr = MergeInto(*m_node, *target->m_node, skipStorages, skipStreams, snbExclude);
    target->Touch();
    return hr;
}

HRESULT StorageImpl::MoveElementTo(const OLECHAR*, IStorage*, const OLECHAR*, DWORD) { return E_NOTIMPL; }

HRESULT StorageImpl::Commit(DWORD) {
    if (!Alive()) return STG_E_REVERTED;
    // A direct sub-storage has nothing of its own to publish: its changes are already in the parent.
    if (!Writable() || !*m_dirty || (!m_root && !m_base)) return S_OK;
    if (!Usable()) return STG_E_REVERTED;
    if (m_root) {
        HRESULT hr = m_file->Commit(*m_node);
        if (FAILED(hr)) return hr;
        if (m_base) {
            NodePtr taken = TakeTree();
            m_base = taken ? std::move(taken) : CloneTree(*m_node);
        }
    } else if (m_base) {
        for (auto& [name, child] : m_base->children) KillTree(*child);
        if (NodePtr taken = TakeTree()) {
            m_base->children = std::move(taken->children);
        } else {
            NodePtr copy = CloneTree(*m_node);
            m_base->children = std::move(copy->children);
        }
        m_base->clsid = m_node->clsid;
        m_base->stateBits = m_node->stateBits;
        m_base->mtime = NowFileTime();
        *m_parentDirty = true;
    }
    *m_dirty = false;
    return S_OK;
}

HRESULT StorageImpl::Revert() {
    if (!Alive()) return STG_E_REVERTED;
    if (m_root && (m_mode & STGM_TRANSACTED)) return RevertToFile();
    if (!m_base) return S_OK;
    if (!m_stale && !TakeTree()) {
        KillTree(*m_node);
        m_node = CloneTree(*m_base);
    }
    *m_dirty = false;
    return S_OK;
}

namespace {

bool Unshared(const Node& node) {
    for (const auto& [name, child] : node.children)
        if (child.use_count() != 1 || child->open || !Unshared(*child)) return false;
    return true;
}

}  // namespace

HRESULT StorageImpl::RevertToFile() {
    // Unchanged and held by nobody else: the tree already is what the file holds.
    if (!*m_dirty && m_node.use_count() == 1 && Unshared(*m_node)) return S_OK;
    NodePtr fresh;
    HRESULT hr = ReadTree(m_file->m_backing, fresh);
    if (FAILED(hr)) return hr;
    KillTree(*m_node);
    m_node = std::move(fresh);
    *m_dirty = false;
    return S_OK;
}

NodePtr StorageImpl::TakeTree() {
    // Each element is held once, by its parent's list, unless a handle or an enumerator holds it too.
    if (m_stale || m_node.use_count() != 1 || !Unshared(*m_node)) return nullptr;
    NodePtr standIn = MakeNode();
    standIn->name = m_node->name;
    standIn->type = m_node->type;
    standIn->clsid = m_node->clsid;
    standIn->stateBits = m_node->stateBits;
    std::swap(m_node, standIn);
    m_stale = true;
    return standIn;
}

bool StorageImpl::Usable() {
    if (!Alive()) return false;
    if (m_stale) {
        m_node = CloneTree(*m_base);
        m_stale = false;
    }
    return true;
}

HRESULT StorageImpl::EnumElements(DWORD, void*, DWORD, IEnumSTATSTG** ppenum) {
    if (!ppenum) return STG_E_INVALIDPOINTER;
    *ppenum = nullptr;
    if (!Usable()) return STG_E_REVERTED;
    *ppenum = new EnumImpl(m_file, m_node);
    return S_OK;
}

HRESULT StorageImpl::DestroyElement(const OLECHAR* name) {
    if (!Usable()) return STG_E_REVERTED;
    std::u16string_view key;
    HRESULT hr = CheckName(name, key);
    // A damaged file can hold an element without a name; the empty name reaches it here and only here,
    // so that it can be cleared away.
    if (hr == STG_E_INVALIDNAME && name && !*name && m_node->children.find(key) != m_node->children.end())
        hr = S_OK;
    if (FAILED(hr)) return hr;
    if (!Writable()) return STG_E_ACCESSDENIED;
    auto it = m_node->children.find(key);
    if (it == m_node->children.end()) return STG_E_FILENOTFOUND;
    // Handles open under it become reverted, as on Windows.
    KillTree(*it->second);
    m_node->children.erase(it);
    Touch();
    return S_OK;
}

HRESULT StorageImpl::RenameElement(const OLECHAR* oldName, const OLECHAR* newName) {
    if (!Usable()) return STG_E_REVERTED;
    std::u16string_view from, to;
    HRESULT hr = CheckName(oldName, from);
    if (SUCCEEDED(hr)) hr = CheckName(newName, to);
    if (FAILED(hr)) return hr;
    if (!Writable()) return STG_E_ACCESSDENIED;
    auto it = m_node->children.find(from);
    if (it == m_node->children.end()) return STG_E_FILENOTFOUND;
    auto other = m_node->children.find(to);
    if (other != m_node->children.end() && other != it) return STG_E_FILEALREADYEXISTS;
    if (it->second->open) return STG_E_ACCESSDENIED;
    NodePtr node = it->second;
    m_node->children.erase(it);
    node->name = to;
    m_node->children.Insert(std::move(node));
    Touch();
    return S_OK;
}

HRESULT StorageImpl::SetElementTimes(const OLECHAR* name, const FILETIME* pctime, const FILETIME*,
                                     const FILETIME* pmtime) {
    if (!Usable()) return STG_E_REVERTED;
    if (!Writable()) return STG_E_ACCESSDENIED;
    Node* node = m_node.get();
    if (name) {
        std::u16string_view key;
        HRESULT hr = CheckName(name, key);
        if (FAILED(hr)) return hr;
        auto it = m_node->children.find(key);
        if (it == m_node->children.end()) return STG_E_FILENOTFOUND;
        node = it->second.get();
    }
    auto join = [](const FILETIME* t) {
        return (static_cast<std::uint64_t>(t->dwHighDateTime) << 32) | t->dwLowDateTime;
    };
    if (pctime) node->ctime = join(pctime);
    if (pmtime) node->mtime = join(pmtime);
    Touch();
    return S_OK;
}

HRESULT StorageImpl::SetClass(REFCLSID clsid) {
    if (!Usable()) return STG_E_REVERTED;
    if (!Writable()) return STG_E_ACCESSDENIED;
    m_node->clsid = clsid;
    Touch();
    return S_OK;
}

HRESULT StorageImpl::SetStateBits(DWORD bits, DWORD mask) {
    if (!Usable()) return STG_E_REVERTED;
    if (!Writable()) return STG_E_ACCESSDENIED;
    m_node->stateBits = (m_node->stateBits & ~mask) | (bits & mask);
    Touch();
    return S_OK;
}

HRESULT StorageImpl::Stat(STATSTG* stat, DWORD flags) {
    if (!stat) return STG_E_INVALIDPOINTER;
    if (!Usable()) return STG_E_REVERTED;
    // The root reports its file's path as its name, as Windows does.
    std::u16string path = m_root ? TavikUtf8ToWide(m_file->m_path) : m_node->name;
    return FillStat(*m_node, stat, flags, m_mode, path);
}

}  // namespace tavik::platform
