// The process's registry: open handles, the SQLite store under them, the read-only MIME type list
// under HKEY_CLASSES_ROOT, and the timer that commits and syncs. The Reg* calls forward here; each
// method has the contract of the call of the same name in platform/Registry.h. Thread-safe: one lock
// serialises every call.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "platform/Registry.h"
#include "platform/registry/internal/StoreDatabase.h"

namespace tavik::platform {

class RegTextWriter;
struct RegTextKey;

class RegistryStore {
public:
    static RegistryStore& Instance();
    RegistryStore() = default;
    ~RegistryStore();
    RegistryStore(const RegistryStore&) = delete;
    RegistryStore& operator=(const RegistryStore&) = delete;

    LONG OpenKey(HKEY parent, const char* subKey, REGSAM access, bool create, HKEY* result,
                 DWORD* disposition);
    LONG CloseKey(HKEY key);
    LONG QueryValue(HKEY key, const char* name, DWORD* type, BYTE* data, DWORD* size);
    LONG SetValue(HKEY key, const char* name, DWORD type, const BYTE* data, DWORD size);
    LONG DeleteValue(HKEY key, const char* name);
    LONG EnumKey(HKEY key, DWORD index, char* name, DWORD* nameChars, FILETIME* written);
    LONG EnumValue(HKEY key, DWORD index, char* name, DWORD* nameChars, DWORD* type, BYTE* data, DWORD* size);
    struct KeyInfo {
        DWORD subKeys = 0, maxSubKeyLen = 0, values = 0, maxValueNameLen = 0, maxValueLen = 0;
        FILETIME written{};
    };
    LONG QueryInfo(HKEY key, KeyInfo* info);
    LONG DeleteKey(HKEY key, const char* subKey);
    LONG FlushKey(HKEY key);
    LONG SaveKey(HKEY key, const char* file);
    LONG RestoreKey(HKEY key, const char* file);
    LONG ExportKey(const char* keyPath, const char* file);
    LONG ImportFile(const char* file);

    void SetStorePath(const char* path);
    std::string StorePath();
    LONG CloseStore();
    void SetMimeTypesPath(const char* path);
    // Makes every commit wait for the disk (for measurements); off by default.
    void SetSyncEveryCommit(bool on);

    // The explanation of the calling thread's last failure (RegGetLastMessage).
    static std::string& LastMessage();

private:
    struct MimeNode {
        std::string name;
        const MimeNode* parent = nullptr;
        std::map<std::string, std::unique_ptr<MimeNode>> children;  // by folded name
        std::string extension;
    };
    // A key as the calls see it: its row in the store and/or its node in the MIME list.
    struct Node {
        int root = 0;
        std::int64_t id = 0;
        const MimeNode* mime = nullptr;
        bool Exists() const { return id != 0 || mime != nullptr; }
    };
    struct Handle {
        Node node;
        REGSAM access = 0;
        bool deleted = false;
        std::uint64_t checkedEpoch = 0;
    };
    using Clock = std::chrono::steady_clock;

    LONG Ready();
    LONG Fail(LONG code);  // records the database's explanation
    LONG Resolve(HKEY key, REGSAM need, Handle** handle);
    LONG Child(const Node& parent, const std::string& name, Node* child);
    LONG Walk(const Node& from, const std::vector<std::string>& parts, Node* node, size_t* found);
    LONG LoadChildren(const Node& node, std::vector<StoredChild>* children);
    LONG LoadValues(const Node& node, std::vector<StoredValue>* values);
    LONG CachedChildren(const Node& node, const std::vector<StoredChild>** children);
    LONG CachedValues(const Node& node, const std::vector<StoredValue>** values);
    LONG WriteBegin();
    LONG Commit();
    LONG Materialise(Node* node);
    LONG CreatePath(Node* node, const std::vector<std::string>& parts, size_t from);
    LONG DeleteTree(const Node& node);
    void Changed();
    void ExternalChange();
    LONG FullPath(const Node& node, std::string* path);
    LONG Export(const Node& node, const std::string& path, RegTextWriter& writer);
    LONG ApplyValues(const Node& node, const RegTextKey& key);
    LONG ReadTextFile(const char* file, std::vector<RegTextKey>* keys);
    const MimeNode* MimeRoot();
    std::string DefaultPath() const;
    void CloseDatabase();
    void TimerLoop();
    void StopTimer(std::unique_lock<std::mutex>& lock);
    void WakeTimerBy(Clock::time_point deadline);

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::thread m_timer;
    bool m_stop = false;
    // What the timer waits for; min() while it is busy (it then looks again before waiting).
    Clock::time_point m_timerDeadline = Clock::time_point::min();

    std::unique_ptr<StoreDatabase> m_db;
    bool m_pathSet = false;
    std::string m_path;
    bool m_syncEveryCommit = false;
    std::int64_t m_dataVersion = 0;
    std::uint64_t m_epoch = 1;  // moves when rows may have gone behind the handles' backs
    Clock::time_point m_writeStart{};
    Clock::time_point m_readStart{};
    Clock::time_point m_lastCommit{};
    bool m_unsynced = false;

    std::string m_mimePath = "/etc/mime.types";
    std::unique_ptr<MimeNode> m_mime;

    std::unordered_map<std::uintptr_t, Handle> m_handles;
    std::uintptr_t m_nextHandle = 0x1000;
    Handle m_roots[StoreDatabase::kRootCount];

    // One key's sub-keys and one key's values, for walks by index; any write drops them.
    bool m_childCacheValid = false;
    Node m_childCacheNode;
    std::vector<StoredChild> m_childCache;
    bool m_valueCacheValid = false;
    Node m_valueCacheNode;
    std::vector<StoredValue> m_valueCache;
};

}  // namespace tavik::platform
