#include "platform/registry/RegistryStore.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "platform/internal/SystemCalls.h"
#include "platform/registry/internal/MimeTypes.h"

namespace tavik::platform {

namespace {

// How long a write transaction may hold the store's lock before the timer commits it, and how long a
// commit may wait for the disk. Short enough that another process hardly notices the lock.
constexpr auto kCommitAfter = std::chrono::milliseconds(200);
constexpr auto kSyncAfter = std::chrono::milliseconds(1000);
// How long calls may share one read snapshot; opening and closing a key also end it.
constexpr auto kReadFor = std::chrono::milliseconds(100);

constexpr size_t kMaxKeyNameLength = 255;
constexpr size_t kMaxValueNameLength = 16383;

constexpr std::uintptr_t kClassesRootValue = 0x80000000u;
constexpr std::uintptr_t kCurrentUserValue = 0x80000001u;
constexpr std::uintptr_t kPredefinedFirst = 0x80000000u;
constexpr std::uintptr_t kPredefinedLast = 0x800000FFu;

constexpr REGSAM kGenericRead = 0x80000000u;
constexpr REGSAM kGenericWrite = 0x40000000u;
constexpr REGSAM kGenericAll = 0x10000000u;
constexpr REGSAM kMaximumAllowed = 0x02000000u;

REGSAM NormaliseAccess(REGSAM sam) {
    if (sam & (kGenericAll | kMaximumAllowed)) return KEY_ALL_ACCESS;
    REGSAM access = sam & KEY_ALL_ACCESS;
    if (sam & kGenericRead) access |= KEY_READ;
    if (sam & kGenericWrite) access |= KEY_WRITE;
    return access;
}

// Splits a sub-key path. A trailing backslash is tolerated, as Windows does; an empty part is not.
LONG SplitPath(const char* subKey, std::vector<std::string>* parts) {
    parts->clear();
    if (!subKey || !*subKey) return ERROR_SUCCESS;
    std::string_view rest(subKey);
    if (rest.back() == '\\') rest.remove_suffix(1);
    if (rest.empty()) return ERROR_BAD_PATHNAME;
    size_t start = 0;
    while (true) {
        size_t next = rest.find('\\', start);
        std::string_view part = rest.substr(start, next == std::string_view::npos ? rest.npos : next - start);
        if (part.empty()) return ERROR_BAD_PATHNAME;
        if (part.size() > kMaxKeyNameLength) return ERROR_INVALID_PARAMETER;
        parts->emplace_back(part);
        if (next == std::string_view::npos) return ERROR_SUCCESS;
        start = next + 1;
    }
}

FILETIME ToFileTime(std::int64_t unixSeconds) {
    // 100-ns intervals between 1601-01-01 and 1970-01-01.
    std::uint64_t t = static_cast<std::uint64_t>(unixSeconds) * 10000000ull + 116444736000000000ull;
    return FILETIME{static_cast<DWORD>(t & 0xFFFFFFFFu), static_cast<DWORD>(t >> 32)};
}

}  // namespace

RegistryStore& RegistryStore::Instance() {
    static RegistryStore store;
    return store;
}

std::string& RegistryStore::LastMessage() {
    thread_local std::string message;
    return message;
}

RegistryStore::~RegistryStore() {
    std::unique_lock<std::mutex> lock(m_mutex);
    CloseDatabase();
    StopTimer(lock);
}

// ---- the store file and its timer ----

std::string RegistryStore::DefaultPath() const {
    if (const char* env = std::getenv("TAVIK_REGISTRY"); env && *env) return env;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/')
        return std::string(xdg) + "/tavikmail/registry.db";
    const char* home = std::getenv("HOME");
    if (!home || !*home) {
        const passwd* pw = Sys().getpwuid(Sys().getuid());
        home = pw ? pw->pw_dir : nullptr;
    }
    return home && *home ? std::string(home) + "/.config/tavikmail/registry.db" : std::string();
}

std::string RegistryStore::StorePath() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pathSet ? m_path : DefaultPath();
}

void RegistryStore::SetStorePath(const char* path) {
    std::lock_guard<std::mutex> lock(m_mutex);
    CloseDatabase();
    m_pathSet = path != nullptr;
    m_path = path ? path : "";
}

LONG RegistryStore::CloseStore() {
    std::lock_guard<std::mutex> lock(m_mutex);
    LastMessage().clear();
    LONG code = ERROR_SUCCESS;
    if (m_db) {
        code = Commit();
        if (code == ERROR_SUCCESS) code = m_db->Sync();
    }
    CloseDatabase();
    return code;
}

void RegistryStore::CloseDatabase() {
    if (m_db) {
        Commit();
        m_db->Sync();
    }
    m_db.reset();
    m_unsynced = false;
    // Handles belong to the file they were opened on.
    m_handles.clear();
    ExternalChange();
}

void RegistryStore::SetMimeTypesPath(const char* path) {
    std::lock_guard<std::mutex> lock(m_mutex);
    // Handles and the roots point into the old list: they go with it.
    CloseDatabase();
    m_mimePath = path ? path : "/etc/mime.types";
    m_mime.reset();
}

void RegistryStore::SetSyncEveryCommit(bool on) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_syncEveryCommit = on;
    if (m_db) m_db->SetSyncEveryCommit(on);
}

LONG RegistryStore::Fail(LONG code) {
    if (m_db && LastMessage().empty()) LastMessage() = m_db->LastMessage();
    // A failed statement may have taken the transaction, and what the caches saw, with it.
    ExternalChange();
    return code;
}

LONG RegistryStore::Ready() {
    LastMessage().clear();
    if (!m_db) {
        auto db = std::make_unique<StoreDatabase>();
        LONG code = db->Open(m_pathSet ? m_path : DefaultPath());
        if (code != ERROR_SUCCESS) {
            LastMessage() = db->LastMessage();
            return code;
        }
        if (m_syncEveryCommit) db->SetSyncEveryCommit(true);
        m_db = std::move(db);
        for (int r = 0; r < StoreDatabase::kRootCount; ++r) {
            m_roots[r] = Handle{};
            m_roots[r].node.root = r;
            m_roots[r].node.id = m_db->RootId(static_cast<StoreDatabase::Root>(r));
            m_roots[r].access = KEY_ALL_ACCESS;
        }
        m_roots[StoreDatabase::kClassesRoot].node.mime = MimeRoot();
        ExternalChange();
        if (LONG c = m_db->DataVersion(&m_dataVersion); c != ERROR_SUCCESS) return Fail(c);
        if (!m_timer.joinable()) {
            m_stop = false;
            m_timer = std::thread(&RegistryStore::TimerLoop, this);
        }
        return ERROR_SUCCESS;
    }
    // Notice commits of other processes, which may have removed keys behind our handles.
    if (!m_db->InWrite() && !m_db->InRead()) {
        if (LONG c = m_db->BeginRead(); c != ERROR_SUCCESS) return Fail(c);
        m_readStart = Clock::now();
        WakeTimerBy(m_readStart + kReadFor);
        std::int64_t version = 0;
        if (LONG c = m_db->DataVersion(&version); c != ERROR_SUCCESS) return Fail(c);
        if (version != m_dataVersion) {
            m_dataVersion = version;
            ExternalChange();
        }
    }
    return ERROR_SUCCESS;
}

void RegistryStore::Changed() {
    m_childCacheValid = false;
    m_valueCacheValid = false;
}

void RegistryStore::ExternalChange() {
    Changed();
    ++m_epoch;
}

LONG RegistryStore::WriteBegin() {
    if (m_db->InWrite()) return ERROR_SUCCESS;
    if (LONG code = m_db->BeginWrite(); code != ERROR_SUCCESS) return Fail(code);
    m_writeStart = Clock::now();
    WakeTimerBy(m_writeStart + kCommitAfter);
    // Taking the lock may have moved us past other processes' commits.
    std::int64_t version = 0;
    if (LONG code = m_db->DataVersion(&version); code != ERROR_SUCCESS) return Fail(code);
    if (version != m_dataVersion) {
        m_dataVersion = version;
        ExternalChange();
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::Commit() {
    if (!m_db || !m_db->InWrite()) return ERROR_SUCCESS;
    if (LONG code = m_db->Commit(); code != ERROR_SUCCESS) return Fail(code);
    m_lastCommit = Clock::now();
    m_unsynced = !m_syncEveryCommit;
    if (m_unsynced) WakeTimerBy(m_lastCommit + kSyncAfter);
    return ERROR_SUCCESS;
}

void RegistryStore::TimerLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stop) {
        auto deadline = Clock::time_point::max();
        if (m_db && m_db->InWrite()) deadline = m_writeStart + kCommitAfter;
        if (m_db && m_db->InRead()) deadline = std::min(deadline, m_readStart + kReadFor);
        if (m_db && m_unsynced) deadline = std::min(deadline, m_lastCommit + kSyncAfter);
        m_timerDeadline = deadline;
        if (deadline == Clock::time_point::max())
            m_wake.wait(lock);
        else
            m_wake.wait_until(lock, deadline);
        m_timerDeadline = Clock::time_point::min();
        if (m_stop || !m_db) continue;
        auto now = Clock::now();
        if (m_db->InWrite() && now >= m_writeStart + kCommitAfter) Commit();
        if (m_db->InRead() && now >= m_readStart + kReadFor) m_db->EndRead();
        if (m_unsynced && !m_db->InWrite() && now >= m_lastCommit + kSyncAfter) {
            m_db->Sync();
            m_unsynced = false;
        }
    }
}

// Waking the timer costs a thread switch; most calls only move a deadline it already waits for.
void RegistryStore::WakeTimerBy(Clock::time_point deadline) {
    if (deadline < m_timerDeadline) m_wake.notify_all();
}

void RegistryStore::StopTimer(std::unique_lock<std::mutex>& lock) {
    if (!m_timer.joinable()) return;
    m_stop = true;
    m_wake.notify_all();
    lock.unlock();
    m_timer.join();
    lock.lock();
}

// ---- the MIME type list under HKEY_CLASSES_ROOT ----

const RegistryStore::MimeNode* RegistryStore::MimeRoot() {
    if (m_mime) return m_mime.get();
    m_mime = std::make_unique<MimeNode>();
    MimeNode* node = m_mime.get();
    for (const char* part : {"MIME", "Database", "Content Type"}) {
        auto child = std::make_unique<MimeNode>();
        child->name = part;
        child->parent = node;
        MimeNode* next = child.get();
        node->children.emplace(FoldName(part), std::move(child));
        node = next;
    }
    for (const MimeType& type : ReadMimeTypes(m_mimePath)) {
        auto child = std::make_unique<MimeNode>();
        child->name = type.type;
        child->parent = node;
        child->extension = type.extension;
        node->children.emplace(FoldName(type.type), std::move(child));
    }
    return m_mime.get();
}

// ---- handles and nodes ----

LONG RegistryStore::Resolve(HKEY key, REGSAM need, Handle** out) {
    auto value = reinterpret_cast<std::uintptr_t>(key);
    Handle* h = nullptr;
    if (value == kClassesRootValue) {
        h = &m_roots[StoreDatabase::kClassesRoot];
    } else if (value == kCurrentUserValue) {
        h = &m_roots[StoreDatabase::kCurrentUser];
    } else if (value >= kPredefinedFirst && value <= kPredefinedLast) {
        LastMessage() = "only HKEY_CURRENT_USER and HKEY_CLASSES_ROOT are kept by this system";
        return ERROR_CALL_NOT_IMPLEMENTED;
    } else {
        auto it = m_handles.find(value);
        if (it == m_handles.end()) return ERROR_INVALID_HANDLE;
        h = &it->second;
    }
    if (h->deleted) return ERROR_KEY_DELETED;
    if (h->checkedEpoch != m_epoch) {
        if (h->node.id != 0) {
            bool exists = false;
            if (LONG c = m_db->KeyExists(h->node.id, &exists); c != ERROR_SUCCESS) return Fail(c);
            if (!exists) {
                h->node.id = 0;
                if (!h->node.mime) {
                    h->deleted = true;
                    return ERROR_KEY_DELETED;
                }
            }
        }
        if (h->node.id == 0 && h->node.mime && h->node.mime->parent) {
            // Another process may have written to a key of the list since.
            std::vector<const MimeNode*> chain;
            for (const MimeNode* m = h->node.mime; m->parent; m = m->parent) chain.push_back(m);
            std::int64_t id = m_db->RootId(StoreDatabase::kClassesRoot);
            for (auto it = chain.rbegin(); it != chain.rend() && id != 0; ++it)
                if (LONG c = m_db->FindChild(id, FoldName((*it)->name), &id); c != ERROR_SUCCESS)
                    return Fail(c);
            h->node.id = id;
        }
        h->checkedEpoch = m_epoch;
    }
    if ((h->access & need) != need) return ERROR_ACCESS_DENIED;
    *out = h;
    return ERROR_SUCCESS;
}

LONG RegistryStore::Child(const Node& parent, const std::string& name, Node* child) {
    *child = Node{};
    child->root = parent.root;
    std::string fold = FoldName(name);
    if (parent.id != 0)
        if (LONG c = m_db->FindChild(parent.id, fold, &child->id); c != ERROR_SUCCESS) return Fail(c);
    if (parent.mime) {
        auto it = parent.mime->children.find(fold);
        if (it != parent.mime->children.end()) child->mime = it->second.get();
    }
    return ERROR_SUCCESS;
}

// Follows parts from a node; *found tells how many exist.
LONG RegistryStore::Walk(const Node& from, const std::vector<std::string>& parts, Node* node, size_t* found) {
    *node = from;
    *found = 0;
    for (const std::string& part : parts) {
        Node child;
        if (LONG c = Child(*node, part, &child); c != ERROR_SUCCESS) return c;
        if (!child.Exists()) break;
        *node = child;
        ++*found;
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::LoadChildren(const Node& node, std::vector<StoredChild>* children) {
    children->clear();
    if (node.id != 0)
        if (LONG c = m_db->Children(node.id, children); c != ERROR_SUCCESS) return Fail(c);
    if (node.mime && !node.mime->children.empty()) {
        // Both lists are in folded-name order; the program's own keys win.
        std::vector<StoredChild> merged;
        merged.reserve(children->size() + node.mime->children.size());
        auto db = children->begin();
        auto list = node.mime->children.begin();
        while (db != children->end() || list != node.mime->children.end()) {
            int order = db == children->end()               ? 1
                        : list == node.mime->children.end() ? -1
                                                            : FoldName(db->name).compare(list->first);
            if (order <= 0) {
                merged.push_back(*db++);
                if (order == 0) ++list;
            } else {
                merged.push_back({list->second->name, 0, 0});
                ++list;
            }
        }
        children->swap(merged);
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::LoadValues(const Node& node, std::vector<StoredValue>* values) {
    values->clear();
    if (node.id != 0)
        if (LONG c = m_db->Values(node.id, values); c != ERROR_SUCCESS) return Fail(c);
    if (node.mime && !node.mime->extension.empty()) {
        bool shadowed = std::any_of(values->begin(), values->end(),
                                    [](const StoredValue& v) { return FoldName(v.name) == "EXTENSION"; });
        if (!shadowed) values->push_back({"Extension", REG_SZ, node.mime->extension + '\0'});
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::CachedChildren(const Node& node, const std::vector<StoredChild>** children) {
    if (!m_childCacheValid || m_childCacheNode.id != node.id || m_childCacheNode.mime != node.mime) {
        m_childCacheValid = false;
        if (LONG c = LoadChildren(node, &m_childCache); c != ERROR_SUCCESS) return c;
        m_childCacheNode = node;
        m_childCacheValid = true;
    }
    *children = &m_childCache;
    return ERROR_SUCCESS;
}

LONG RegistryStore::CachedValues(const Node& node, const std::vector<StoredValue>** values) {
    if (!m_valueCacheValid || m_valueCacheNode.id != node.id || m_valueCacheNode.mime != node.mime) {
        m_valueCacheValid = false;
        if (LONG c = LoadValues(node, &m_valueCache); c != ERROR_SUCCESS) return c;
        m_valueCacheNode = node;
        m_valueCacheValid = true;
    }
    *values = &m_valueCache;
    return ERROR_SUCCESS;
}

// Gives a key that so far lives only in the MIME list its rows, so that it can be written to.
LONG RegistryStore::Materialise(Node* node) {
    if (node->id != 0) return ERROR_SUCCESS;
    if (!node->mime) return ERROR_KEY_DELETED;
    std::vector<const MimeNode*> chain;
    for (const MimeNode* m = node->mime; m->parent; m = m->parent) chain.push_back(m);
    std::int64_t id = m_db->RootId(StoreDatabase::kClassesRoot);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        std::int64_t child = 0;
        if (LONG c = m_db->FindChild(id, FoldName((*it)->name), &child); c != ERROR_SUCCESS) return Fail(c);
        if (child == 0)
            if (LONG c = m_db->CreateChild(id, (*it)->name, &child); c != ERROR_SUCCESS) return Fail(c);
        id = child;
    }
    for (auto& [value, h] : m_handles)
        if (h.node.mime == node->mime && h.node.id == 0) h.node.id = id;
    node->id = id;
    Changed();
    return ERROR_SUCCESS;
}

LONG RegistryStore::CreatePath(Node* node, const std::vector<std::string>& parts, size_t from) {
    if (LONG c = Materialise(node); c != ERROR_SUCCESS) return c;
    for (size_t i = from; i < parts.size(); ++i) {
        Node child;
        if (LONG c = Child(*node, parts[i], &child); c != ERROR_SUCCESS) return c;
        if (child.id == 0) {
            if (LONG c = m_db->CreateChild(node->id, parts[i], &child.id); c != ERROR_SUCCESS) return Fail(c);
            Changed();
        }
        *node = child;
    }
    return ERROR_SUCCESS;
}

// Removes the stored rows of a key and everything below it; entries of the MIME list stay. Gathers the
// keys level by level rather than recursing: keys can nest tens of thousands deep.
LONG RegistryStore::DeleteTree(const Node& node) {
    if (node.id == 0) return ERROR_SUCCESS;
    std::vector<std::int64_t> ids{node.id};
    std::vector<StoredChild> children;
    for (size_t i = 0; i < ids.size(); ++i) {
        if (LONG c = m_db->Children(ids[i], &children); c != ERROR_SUCCESS) return Fail(c);
        for (const StoredChild& child : children) ids.push_back(child.id);
    }
    for (std::int64_t id : ids)
        if (LONG c = m_db->DeleteKeyRow(id); c != ERROR_SUCCESS) return Fail(c);
    Changed();
    return ERROR_SUCCESS;
}

// ---- the calls ----

LONG RegistryStore::OpenKey(HKEY parent, const char* subKey, REGSAM access, bool create, HKEY* result,
                            DWORD* disposition) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!result) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    std::vector<std::string> parts;
    if (LONG c = SplitPath(subKey, &parts); c != ERROR_SUCCESS) return c;
    // An open starts from the newest state other processes have committed.
    if (m_db) m_db->EndRead();
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(parent, 0, &h); c != ERROR_SUCCESS) return c;
    Node node;
    size_t found = 0;
    if (LONG c = Walk(h->node, parts, &node, &found); c != ERROR_SUCCESS) return c;
    bool created = found < parts.size();
    if (created) {
        if (!create) return ERROR_FILE_NOT_FOUND;
        if (!(h->access & KEY_CREATE_SUB_KEY)) return ERROR_ACCESS_DENIED;
        if (LONG c = WriteBegin(); c != ERROR_SUCCESS) return c;
        // Resolve again: taking the write lock may have shown other processes' changes.
        if (LONG c = Resolve(parent, 0, &h); c != ERROR_SUCCESS) return c;
        if (LONG c = Walk(h->node, parts, &node, &found); c != ERROR_SUCCESS) return c;
        created = found < parts.size();
        if (created) {
            if (LONG c = m_db->Savepoint(); c != ERROR_SUCCESS) return Fail(c);
            if (LONG c = CreatePath(&node, parts, found); c != ERROR_SUCCESS) {
                m_db->RollbackToSavepoint();
                return Fail(c);
            }
            if (LONG c = m_db->Release(); c != ERROR_SUCCESS) return Fail(c);
        }
    }
    std::uintptr_t value = m_nextHandle;
    m_nextHandle += 4;
    if (m_nextHandle >= kPredefinedFirst && m_nextHandle <= kPredefinedLast)
        m_nextHandle = kPredefinedLast + 1;
    Handle& handle = m_handles[value];
    handle.node = node;
    handle.access = NormaliseAccess(access);
    handle.checkedEpoch = m_epoch;
    *result = reinterpret_cast<HKEY>(value);
    if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    return ERROR_SUCCESS;
}

LONG RegistryStore::CloseKey(HKEY key) {
    std::lock_guard<std::mutex> lock(m_mutex);
    LastMessage().clear();
    auto value = reinterpret_cast<std::uintptr_t>(key);
    if (value >= kPredefinedFirst && value <= kPredefinedLast) return ERROR_SUCCESS;
    if (m_handles.erase(value) == 0) return ERROR_INVALID_HANDLE;
    if (m_db) m_db->EndRead();
    // Closing is where callers expect their writes to become durable and visible elsewhere.
    return Commit();
}

LONG RegistryStore::QueryValue(HKEY key, const char* name, DWORD* type, BYTE* data, DWORD* size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (data && !size) return ERROR_INVALID_PARAMETER;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, KEY_QUERY_VALUE, &h); c != ERROR_SUCCESS) return c;
    std::string valueName = name ? name : "";
    std::string fold = FoldName(valueName);
    bool found = false;
    DWORD storedType = 0;
    std::string stored;
    if (h->node.id != 0)
        if (LONG c = m_db->GetValue(h->node.id, fold, &found, &storedType, &stored); c != ERROR_SUCCESS)
            return Fail(c);
    if (!found && h->node.mime && !h->node.mime->extension.empty() && fold == "EXTENSION") {
        found = true;
        storedType = REG_SZ;
        stored = h->node.mime->extension + '\0';
    }
    if (!found) return ERROR_FILE_NOT_FOUND;
    if (type) *type = storedType;
    DWORD needed = static_cast<DWORD>(stored.size());
    if (!size) return ERROR_SUCCESS;
    if (data && *size < needed) {
        *size = needed;
        return ERROR_MORE_DATA;
    }
    if (data && needed) std::memcpy(data, stored.data(), needed);
    *size = needed;
    return ERROR_SUCCESS;
}

LONG RegistryStore::SetValue(HKEY key, const char* name, DWORD type, const BYTE* data, DWORD size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!data && size) return ERROR_INVALID_PARAMETER;
    std::string valueName = name ? name : "";
    if (valueName.size() > kMaxValueNameLength) return ERROR_INVALID_PARAMETER;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (LONG c = WriteBegin(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, KEY_SET_VALUE, &h); c != ERROR_SUCCESS) return c;
    if (LONG c = Materialise(&h->node); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->SetValue(h->node.id, valueName, type, data, size); c != ERROR_SUCCESS) return Fail(c);
    Changed();
    return ERROR_SUCCESS;
}

LONG RegistryStore::DeleteValue(HKEY key, const char* name) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (LONG c = WriteBegin(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, KEY_SET_VALUE, &h); c != ERROR_SUCCESS) return c;
    std::string fold = FoldName(std::string(name ? name : ""));
    bool found = false;
    if (h->node.id != 0)
        if (LONG c = m_db->DeleteValue(h->node.id, fold, &found); c != ERROR_SUCCESS) return Fail(c);
    if (found) {
        Changed();
        return ERROR_SUCCESS;
    }
    if (h->node.mime && !h->node.mime->extension.empty() && fold == "EXTENSION") return ERROR_ACCESS_DENIED;
    return ERROR_FILE_NOT_FOUND;
}

LONG RegistryStore::EnumKey(HKEY key, DWORD index, char* name, DWORD* nameChars, FILETIME* written) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!name || !nameChars) return ERROR_INVALID_PARAMETER;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, KEY_ENUMERATE_SUB_KEYS, &h); c != ERROR_SUCCESS) return c;
    const std::vector<StoredChild>* children = nullptr;
    if (LONG c = CachedChildren(h->node, &children); c != ERROR_SUCCESS) return c;
    if (index >= children->size()) return ERROR_NO_MORE_ITEMS;
    const StoredChild& child = (*children)[index];
    if (child.name.size() + 1 > *nameChars) return ERROR_MORE_DATA;
    std::memcpy(name, child.name.c_str(), child.name.size() + 1);
    *nameChars = static_cast<DWORD>(child.name.size());
    if (written) *written = ToFileTime(child.mtime);
    return ERROR_SUCCESS;
}

LONG RegistryStore::EnumValue(HKEY key, DWORD index, char* name, DWORD* nameChars, DWORD* type, BYTE* data,
                              DWORD* size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!name || !nameChars || (data && !size)) return ERROR_INVALID_PARAMETER;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, KEY_QUERY_VALUE, &h); c != ERROR_SUCCESS) return c;
    const std::vector<StoredValue>* values = nullptr;
    if (LONG c = CachedValues(h->node, &values); c != ERROR_SUCCESS) return c;
    if (index >= values->size()) return ERROR_NO_MORE_ITEMS;
    const StoredValue& value = (*values)[index];
    if (value.name.size() + 1 > *nameChars) return ERROR_MORE_DATA;
    std::memcpy(name, value.name.c_str(), value.name.size() + 1);
    *nameChars = static_cast<DWORD>(value.name.size());
    if (type) *type = value.type;
    if (!size) return ERROR_SUCCESS;
    DWORD needed = static_cast<DWORD>(value.data.size());
    if (data && *size < needed) {
        *size = needed;
        return ERROR_MORE_DATA;
    }
    if (data && needed) std::memcpy(data, value.data.data(), needed);
    *size = needed;
    return ERROR_SUCCESS;
}

LONG RegistryStore::QueryInfo(HKEY key, KeyInfo* info) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, KEY_QUERY_VALUE, &h); c != ERROR_SUCCESS) return c;
    *info = KeyInfo{};
    const std::vector<StoredChild>* children = nullptr;
    if (LONG c = CachedChildren(h->node, &children); c != ERROR_SUCCESS) return c;
    info->subKeys = static_cast<DWORD>(children->size());
    for (const StoredChild& child : *children)
        info->maxSubKeyLen = std::max(info->maxSubKeyLen, static_cast<DWORD>(child.name.size()));
    const std::vector<StoredValue>* values = nullptr;
    if (LONG c = CachedValues(h->node, &values); c != ERROR_SUCCESS) return c;
    info->values = static_cast<DWORD>(values->size());
    for (const StoredValue& value : *values) {
        info->maxValueNameLen = std::max(info->maxValueNameLen, static_cast<DWORD>(value.name.size()));
        info->maxValueLen = std::max(info->maxValueLen, static_cast<DWORD>(value.data.size()));
    }
    if (h->node.id != 0) {
        std::int64_t parent = 0;
        std::string ignored;
        if (LONG c = m_db->KeyRow(h->node.id, &parent, &ignored); c != ERROR_SUCCESS) return Fail(c);
        // The key's own time lives in its parent's list of children.
        std::vector<StoredChild> siblings;
        if (LONG c = m_db->Children(parent, &siblings); c != ERROR_SUCCESS) return Fail(c);
        for (const StoredChild& s : siblings)
            if (s.id == h->node.id) info->written = ToFileTime(s.mtime);
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::DeleteKey(HKEY key, const char* subKey) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> parts;
    if (LONG c = SplitPath(subKey, &parts); c != ERROR_SUCCESS) return c;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (LONG c = WriteBegin(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, 0, &h); c != ERROR_SUCCESS) return c;
    Node target;
    size_t found = 0;
    if (LONG c = Walk(h->node, parts, &target, &found); c != ERROR_SUCCESS) return c;
    if (found < parts.size()) return ERROR_FILE_NOT_FOUND;
    bool isRoot = target.id == m_db->RootId(static_cast<StoreDatabase::Root>(target.root));
    // Keys of the MIME list are the system's, not the program's.
    if (isRoot || target.id == 0) return ERROR_ACCESS_DENIED;
    const std::vector<StoredChild>* children = nullptr;
    if (LONG c = CachedChildren(target, &children); c != ERROR_SUCCESS) return c;
    if (!children->empty()) return ERROR_ACCESS_DENIED;
    if (LONG c = m_db->DeleteKeyRow(target.id); c != ERROR_SUCCESS) return Fail(c);
    for (auto& [value, other] : m_handles) {
        if (other.node.id != target.id) continue;
        other.node.id = 0;
        if (!other.node.mime) other.deleted = true;
    }
    Changed();
    return ERROR_SUCCESS;
}

LONG RegistryStore::FlushKey(HKEY key) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, 0, &h); c != ERROR_SUCCESS) return c;
    m_db->EndRead();
    if (LONG c = Commit(); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->Sync(); c != ERROR_SUCCESS) return Fail(c);
    m_unsynced = false;
    return ERROR_SUCCESS;
}

}  // namespace tavik::platform
