// The registry's SQLite file: opening and checking it, the rows of keys and values, transactions.
// Not thread-safe: RegistryStore serialises every call. Results are Windows registry codes; the last
// failure's explanation is in LastMessage().
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/WinTypes.h"
#include "platform/registry/internal/WriteTurn.h"

struct sqlite3;
struct sqlite3_stmt;

namespace tavik::platform {

struct StoredValue {
    std::string name;
    DWORD type = 0;
    std::string data;
};

struct StoredChild {
    std::string name;
    std::int64_t id = 0;
    std::int64_t mtime = 0;  // seconds since 1970
};

// Puts values read in name order into the order of their creation numbers, seqs[i] being row i's.
void InCreationOrder(const std::vector<std::int64_t>& seqs, std::vector<StoredValue>& values);

// Names compare ignoring the case of ASCII letters; the hive orders sub-keys by the upper-cased name.
std::string FoldName(const char* name, size_t length);
inline std::string FoldName(const std::string& name) { return FoldName(name.data(), name.size()); }

class StoreDatabase {
public:
    enum Root { kClassesRoot = 0, kCurrentUser = 1, kRootCount = 2 };

    StoreDatabase() = default;
    ~StoreDatabase();  // commits an open transaction, then closes
    StoreDatabase(const StoreDatabase&) = delete;
    StoreDatabase& operator=(const StoreDatabase&) = delete;

    // Opens (creating a missing file 0600 and its directory 0700) and checks that the file is ours.
    // ERROR_BADDB for a foreign file, ERROR_REGISTRY_CORRUPT for a damaged one, ERROR_CANTOPEN when it
    // cannot be opened at all; the file is left as it was in every case.
    LONG Open(const std::string& path);
    const std::string& Path() const { return m_path; }
    const std::string& LastMessage() const { return m_message; }

    std::int64_t RootId(Root root) const { return m_roots[root]; }

    // Reads. Each works inside the open transaction when there is one.
    LONG FindChild(std::int64_t parent, const std::string& fold, std::int64_t* id);  // 0 when absent
    LONG KeyExists(std::int64_t id, bool* exists);
    LONG KeyRow(std::int64_t id, std::int64_t* parent, std::string* name);
    LONG Children(std::int64_t parent, std::vector<StoredChild>* children);  // in hive order
    LONG GetValue(std::int64_t key, const std::string& name, bool* found, DWORD* type, std::string* data);
    LONG Values(std::int64_t key, std::vector<StoredValue>* values);  // in creation order
    // Changes when another connection commits; the first call only reads it.
    LONG DataVersion(std::int64_t* version);

    // Writes; each needs BeginWrite first.
    LONG CreateChild(std::int64_t parent, const std::string& name, std::int64_t* id);
    LONG SetValue(std::int64_t key, const std::string& name, DWORD type, const void* data, size_t size);
    LONG DeleteValue(std::int64_t key, const std::string& name, bool* found);
    LONG DeleteValues(std::int64_t key);
    LONG DeleteKeyRow(std::int64_t id);  // and its values; the caller has checked there are no sub-keys

    // A read snapshot shared by the calls that follow, so that each does not lock the file anew; it
    // hides other processes' commits until EndRead.
    LONG BeginRead();
    void EndRead();
    bool InRead() const { return m_inRead; }

    // One write transaction at a time, held until Commit; other processes wait for it. Ends a read
    // snapshot first.
    LONG BeginWrite();
    LONG Commit();
    bool InWrite() const { return m_inWrite; }
    // Nested all-or-nothing steps inside the write transaction.
    LONG Savepoint();
    LONG Release();
    void RollbackToSavepoint();
    // SQLite's full check of the file: ERROR_REGISTRY_CORRUPT when it finds damage that reads may pass
    // over (a lost branch of a tree hides its rows without an error). Costs a read of the whole file.
    LONG CheckIntegrity();
    // Forces what has been committed to the disk.
    LONG Sync();
    // Every commit waits for the disk (slower); the default is a sync by Sync() or the store's timer.
    void SetSyncEveryCommit(bool on);

private:
    enum Statement {
        kFindChild,
        kKeyExists,
        kKeyRow,
        kChildren,
        kGetValue,
        kValues,
        kDataVersion,
        kCreateChild,
        kSetValue,
        kDeleteValue,
        kDeleteValues,
        kDeleteKey,
        kTouch,
        kMaxSeq,
        kStatementCount
    };
    sqlite3_stmt* Prepare(Statement which);
    LONG Exec(const char* sql);
    LONG NextSeq(std::int64_t key, std::int64_t* seq);
    LONG Fail(int rc, const char* what);  // maps an SQLite result to a registry code and records why
    LONG CheckAndInitialise();
    void EndWrite();
    void Close();

    sqlite3* m_db = nullptr;
    std::string m_path;
    std::string m_message;
    sqlite3_stmt* m_statements[kStatementCount] = {};
    std::int64_t m_roots[kRootCount] = {};
    WriteTurn m_turn;
    bool m_inWrite = false;
    bool m_inRead = false;
    std::vector<std::int64_t> m_touched;
    std::unordered_map<std::int64_t, std::int64_t> m_nextSeq;  // per key, within the write transaction
};

}  // namespace tavik::platform
