#include "platform/registry/internal/StoreDatabase.h"

#include <fcntl.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <utility>

#include "platform/internal/SystemCalls.h"

namespace tavik::platform {

namespace {

using tavik::platform::Sys;

// "TVRG": tells our store from any other SQLite file.
constexpr int kApplicationId = 0x54565247;
constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

const char* const kStatementSql[] = {
    "SELECT id FROM keys WHERE parent=?1 AND fold=?2",
    "SELECT 1 FROM keys WHERE id=?1",
    "SELECT parent, name FROM keys WHERE id=?1",
    "SELECT name, id, mtime FROM keys WHERE parent=?1 ORDER BY fold",
    "SELECT type, data FROM vals WHERE key=?1 AND name=?2",
    // In key order; Values sorts by seq itself, which costs less than SQLite's sorter.
    "SELECT name, type, data, seq FROM vals WHERE key=?1",
    "PRAGMA data_version",
    "INSERT INTO keys(parent, fold, name, mtime) VALUES(?1, ?2, ?3, ?4)",
    // An overwrite keeps the row, so the value keeps its place in the enumeration and its first spelling.
    "INSERT INTO vals(key, name, seq, type, data) VALUES(?1, ?2, ?3, ?4, ?5) "
    "ON CONFLICT(key, name) DO UPDATE SET type=excluded.type, data=excluded.data",
    "DELETE FROM vals WHERE key=?1 AND name=?2",
    "DELETE FROM vals WHERE key=?1",
    "DELETE FROM keys WHERE id=?1",
    "UPDATE keys SET mtime=?2 WHERE id=?1",
    "SELECT max(seq) FROM vals WHERE key=?1",
};

// Values live in one b-tree keyed by key and name (NOCASE folds ASCII letters only, as the registry
// does); seq, counted per key, is their creation order.
const char kSchema[] =
    "CREATE TABLE keys(id INTEGER PRIMARY KEY AUTOINCREMENT, parent INTEGER NOT NULL, fold BLOB NOT NULL,"
    " name BLOB NOT NULL, mtime INTEGER NOT NULL DEFAULT 0);"
    "CREATE UNIQUE INDEX keys_by_parent ON keys(parent, fold);"
    "CREATE TABLE vals(key INTEGER NOT NULL, name TEXT NOT NULL COLLATE NOCASE, seq INTEGER NOT NULL,"
    " type INTEGER NOT NULL, data BLOB NOT NULL, PRIMARY KEY(key, name)) WITHOUT ROWID;"
    "INSERT INTO keys(parent, fold, name) VALUES"
    " (0, CAST('HKEY_CLASSES_ROOT' AS BLOB), CAST('HKEY_CLASSES_ROOT' AS BLOB)),"
    " (0, CAST('HKEY_CURRENT_USER' AS BLOB), CAST('HKEY_CURRENT_USER' AS BLOB));";

const char* const kRootNames[] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_USER"};

// SQLite's own file calls, sent through the platform's table so that tests reach them as they reach
// ours. Its syncs and locks cannot be redirected (its table has no entry for them).
int SqliteOpen(const char* path, int flags, int mode) {
    return Sys().open(path, flags, static_cast<mode_t>(mode));
}
int SqliteClose(int fd) { return Sys().close(fd); }
ssize_t SqliteRead(int fd, void* buffer, size_t count) { return Sys().read(fd, buffer, count); }
ssize_t SqlitePread(int fd, void* buffer, size_t count, off_t offset) {
    return Sys().pread(fd, buffer, count, offset);
}
ssize_t SqliteWrite(int fd, const void* buffer, size_t count) { return Sys().write(fd, buffer, count); }
ssize_t SqlitePwrite(int fd, const void* buffer, size_t count, off_t offset) {
    return Sys().pwrite(fd, buffer, count, offset);
}
int SqliteFtruncate(int fd, off_t length) { return Sys().ftruncate(fd, length); }
int SqliteFstat(int fd, struct stat* out) { return Sys().fstat(fd, out); }
int SqliteStat(const char* path, struct stat* out) { return Sys().stat(path, out); }
int SqliteUnlink(const char* path) { return Sys().unlink(path); }
int SqliteMkdir(const char* path, mode_t mode) { return Sys().mkdir(path, mode); }
int SqliteFchmod(int fd, mode_t mode) { return Sys().fchmod(fd, mode); }

// Before the first connection: SQLite reads its table without a lock.
void RouteSqliteThroughTable() {
    sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
    if (!vfs || vfs->iVersion < 3 || !vfs->xSetSystemCall) return;
    const std::pair<const char*, sqlite3_syscall_ptr> routes[] = {
        {"open", reinterpret_cast<sqlite3_syscall_ptr>(SqliteOpen)},
        {"close", reinterpret_cast<sqlite3_syscall_ptr>(SqliteClose)},
        {"read", reinterpret_cast<sqlite3_syscall_ptr>(SqliteRead)},
        {"pread", reinterpret_cast<sqlite3_syscall_ptr>(SqlitePread)},
        {"pread64", reinterpret_cast<sqlite3_syscall_ptr>(SqlitePread)},
        {"write", reinterpret_cast<sqlite3_syscall_ptr>(SqliteWrite)},
        {"pwrite", reinterpret_cast<sqlite3_syscall_ptr>(SqlitePwrite)},
        {"pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(SqlitePwrite)},
        {"ftruncate", reinterpret_cast<sqlite3_syscall_ptr>(SqliteFtruncate)},
        {"fstat", reinterpret_cast<sqlite3_syscall_ptr>(SqliteFstat)},
        {"stat", reinterpret_cast<sqlite3_syscall_ptr>(SqliteStat)},
        {"unlink", reinterpret_cast<sqlite3_syscall_ptr>(SqliteUnlink)},
        {"mkdir", reinterpret_cast<sqlite3_syscall_ptr>(SqliteMkdir)},
        {"fchmod", reinterpret_cast<sqlite3_syscall_ptr>(SqliteFchmod)},
    };
    // An entry this build of SQLite does not use is not there to set; that is fine.
    for (const auto& [name, call] : routes)
        if (vfs->xGetSystemCall(vfs, name)) vfs->xSetSystemCall(vfs, name, call);
}

// How a connection waits for a lock another process holds. A process saving many keys commits many
// small transactions back to back, so the write lock is free only for moments between them; SQLite's own
// handler backs off to one try every 100 ms, which kept missing those moments until the other process
// had finished or the time-out had passed. A try every millisecond finds them.
int RetryOften(void*, int attempt) {
    thread_local std::chrono::steady_clock::time_point since;
    const auto now = std::chrono::steady_clock::now();
    if (attempt == 0)
        since = now;
    else if (now - since >= std::chrono::milliseconds(kBusyTimeoutMs))
        return 0;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 1;
}

std::int64_t NowSeconds() {
    struct timespec ts {};
    Sys().clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::int64_t>(ts.tv_sec);
}

// Creates the missing directories of path's parent, owner-only.
bool MakeParentDirectories(const std::string& path, std::string& error) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return true;
    std::string dir = path.substr(0, slash);
    for (size_t pos = 1; pos <= dir.size(); ++pos) {
        if (pos != dir.size() && dir[pos] != '/') continue;
        std::string part = dir.substr(0, pos);
        if (Sys().mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "cannot create the directory " + part + ": " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

void BindBlob(sqlite3_stmt* s, int index, const void* data, size_t size) {
    if (size == 0)
        sqlite3_bind_zeroblob(s, index, 0);
    else
        sqlite3_bind_blob64(s, index, data, size, SQLITE_STATIC);
}

// Value names are text so that the column's NOCASE collation applies; the bytes are kept as given.
void BindText(sqlite3_stmt* s, int index, const std::string& text) {
    sqlite3_bind_text64(s, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

std::string ColumnText(sqlite3_stmt* s, int column) {
    const unsigned char* p = sqlite3_column_text(s, column);
    int n = sqlite3_column_bytes(s, column);
    return p ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
}

std::string ColumnBlob(sqlite3_stmt* s, int column) {
    const void* p = sqlite3_column_blob(s, column);
    int n = sqlite3_column_bytes(s, column);
    return p ? std::string(static_cast<const char*>(p), static_cast<size_t>(n)) : std::string();
}

// Resets the statement whatever happens, so that no read transaction stays open behind a statement.
struct StatementScope {
    sqlite3_stmt* s;
    ~StatementScope() {
        if (s) {
            sqlite3_reset(s);
            sqlite3_clear_bindings(s);
        }
    }
};

}  // namespace

std::string FoldName(const char* name, size_t length) {
    std::string folded(name, length);
    for (char& c : folded)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return folded;
}

StoreDatabase::~StoreDatabase() { Close(); }

void StoreDatabase::Close() {
    if (!m_db) return;
    EndRead();
    if (m_inWrite) Commit();
    for (auto*& s : m_statements) {
        sqlite3_finalize(s);
        s = nullptr;
    }
    sqlite3_close_v2(m_db);
    m_db = nullptr;
    m_turn.Close();
}

void StoreDatabase::EndWrite() {
    m_inWrite = false;
    m_turn.Give();
}

LONG StoreDatabase::Fail(int rc, const char* what) {
    const char* detail = m_db ? sqlite3_errmsg(m_db) : sqlite3_errstr(rc);
    LONG code;
    std::string why;
    switch (rc & 0xFF) {
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            code = ERROR_REGISTRY_CORRUPT;
            why = "the registry store " + m_path + " is damaged (" + detail + "); it was left as it is";
            break;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            code = ERROR_CANTWRITE;
            why = "the registry store " + m_path + " stayed locked by another process";
            break;
        case SQLITE_NOMEM:
        case SQLITE_TOOBIG:
            code = ERROR_NOT_ENOUGH_MEMORY;
            why = std::string("out of memory in the registry store (") + detail + ")";
            break;
        case SQLITE_CANTOPEN:
            code = ERROR_CANTOPEN;
            why = "cannot open the registry store " + m_path + " (" + detail + ")";
            break;
        case SQLITE_FULL:
        case SQLITE_IOERR:
        case SQLITE_READONLY:
        case SQLITE_PERM:
            code = ERROR_CANTWRITE;
            why = "cannot write the registry store " + m_path + " (" + detail + ")";
            break;
        default:
            code = ERROR_CANTREAD;
            why = "the registry store " + m_path + " failed (" + detail + ")";
            break;
    }
    m_message = std::string(what) + ": " + why;
    // SQLite rolls a transaction back by itself after some failures; follow it.
    if ((m_inWrite || m_inRead) && m_db && sqlite3_get_autocommit(m_db)) {
        if (m_inWrite) EndWrite();
        m_inRead = false;
        m_touched.clear();
    }
    return code;
}

LONG StoreDatabase::Exec(const char* sql) {
    int rc = sqlite3_exec(m_db, sql, nullptr, nullptr, nullptr);
    return rc == SQLITE_OK ? ERROR_SUCCESS : Fail(rc, sql);
}

sqlite3_stmt* StoreDatabase::Prepare(Statement which) {
    sqlite3_stmt*& s = m_statements[which];
    if (!s) {
        int rc = sqlite3_prepare_v3(m_db, kStatementSql[which], -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr);
        if (rc != SQLITE_OK) {
            Fail(rc, "prepare");
            s = nullptr;
        }
    }
    return s;
}

LONG StoreDatabase::Open(const std::string& path) {
    Close();
    m_path = path;
    m_message.clear();
    if (path.empty()) {
        m_message = "no place for the registry store: set TAVIK_REGISTRY, XDG_CONFIG_HOME or HOME";
        return ERROR_CANTOPEN;
    }
    std::string error;
    if (!MakeParentDirectories(path, error)) {
        m_message = error;
        return ERROR_CANTOPEN;
    }
    // Created here rather than by SQLite so that it is owner-only from its first byte; SQLite gives its
    // companion files the same mode.
    int fd = Sys().open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && errno != EEXIST) {
        m_message = "cannot create the registry store " + path + ": " + std::strerror(errno);
        return ERROR_CANTOPEN;
    }
    if (fd < 0) fd = Sys().open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        m_message = "cannot open the registry store " + path + ": " + std::strerror(errno);
        return ERROR_CANTOPEN;
    }
    struct stat st {};
    char header[16] = {};
    ssize_t got =
        Sys().fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? Sys().pread(fd, header, sizeof header, 0) : -1;
    Sys().close(fd);
    if (got < 0) {
        m_message = "the registry store " + path + " is not a regular file";
        return ERROR_CANTOPEN;
    }
    if (got > 0 &&
        (got < static_cast<ssize_t>(sizeof header) || std::memcmp(header, "SQLite format 3", 16) != 0)) {
        m_message =
            "the file " + path + " is not a registry store (not an SQLite database); it was left as it is";
        return ERROR_BADDB;
    }
    // Allocation statistics cost a global mutex on every allocation; nothing here reads them. Too late
    // (and harmless) when SQLite is already in use.
    static const int configured = [] {
        int rc = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        RouteSqliteThroughTable();
        return rc;
    }();
    (void)configured;
    int rc = sqlite3_open_v2(path.c_str(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (rc != SQLITE_OK) {
        LONG code = Fail(rc, "open");
        Close();
        return code;
    }
    // SQLite falls back to reading when the file will not open for writing; a store we cannot write is
    // refused instead, or every later write would fail and its log would be left behind.
    if (sqlite3_db_readonly(m_db, "main") == 1) {
        Close();
        m_message = "cannot open the registry store " + path + " for writing";
        return ERROR_CANTOPEN;
    }
    sqlite3_extended_result_codes(m_db, 1);
    sqlite3_busy_handler(m_db, RetryOften, nullptr);
    LONG code = CheckAndInitialise();
    if (code != ERROR_SUCCESS) {
        std::string why = m_message;
        Close();
        m_message = why;
        return code;
    }
    m_turn.Open(path + "-lock");
    return ERROR_SUCCESS;
}

LONG StoreDatabase::CheckAndInitialise() {
    auto readInt = [&](const char* sql, std::int64_t* out) -> LONG {
        sqlite3_stmt* s = nullptr;
        int rc = sqlite3_prepare_v2(m_db, sql, -1, &s, nullptr);
        if (rc == SQLITE_OK) {
            rc = sqlite3_step(s);
            if (rc == SQLITE_ROW) {
                *out = sqlite3_column_int64(s, 0);
                rc = SQLITE_OK;
            }
        }
        sqlite3_finalize(s);
        return rc == SQLITE_OK ? ERROR_SUCCESS : Fail(rc, "check");
    };
    std::int64_t appId = 0, version = 0, objects = 0;
    // All three from one snapshot: another process may be initialising the file meanwhile, and its
    // schema seen without its marks would look like another program's database.
    auto readMarks = [&]() -> LONG {
        LONG code;
        if ((code = readInt("PRAGMA application_id", &appId)) != ERROR_SUCCESS) return code;
        if ((code = readInt("PRAGMA user_version", &version)) != ERROR_SUCCESS) return code;
        return readInt("SELECT count(*) FROM sqlite_master", &objects);
    };
    LONG code;
    if ((code = Exec("BEGIN")) != ERROR_SUCCESS) return code;
    code = readMarks();
    sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr);
    if (code != ERROR_SUCCESS) return code;

    if (appId == 0 && objects == 0) {
        // A new, empty file. Another process may be initialising it at the same moment: decide again
        // under the write lock.
        if ((code = Exec("BEGIN IMMEDIATE")) != ERROR_SUCCESS) return code;
        if ((code = readMarks()) != ERROR_SUCCESS) return code;
        if (objects == 0) {
            char pragmas[96];
            std::snprintf(pragmas, sizeof pragmas, "PRAGMA application_id=%d; PRAGMA user_version=%d;",
                          kApplicationId, kSchemaVersion);
            if ((code = Exec(kSchema)) != ERROR_SUCCESS || (code = Exec(pragmas)) != ERROR_SUCCESS) {
                sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
                return code;
            }
        }
        if ((code = Exec("COMMIT")) != ERROR_SUCCESS) return code;
        if ((code = readMarks()) != ERROR_SUCCESS) return code;
    }
    if (appId != kApplicationId) {
        m_message = "the file " + m_path +
                    " is not a registry store (it belongs to another program); it was left as it is";
        return ERROR_BADDB;
    }
    if (version > kSchemaVersion) {
        m_message = "the registry store " + m_path + " was written by a newer version of this program";
        return ERROR_BADDB;
    }
    // WAL lets readers in other processes go on while one process writes, and makes a commit one
    // append; the store's timer and RegFlushKey take it to the disk.
    // The mode is kept in the file, so only its creator normally sets it. Switching needs the file to
    // itself, and SQLite answers "busy" at once, without waiting, while another process that has just
    // created the store still reads it: try again for as long as any lock is waited for.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
    for (;;) {
        int rc = sqlite3_exec(m_db, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK) break;
        if ((rc & 0xFF) != SQLITE_BUSY || std::chrono::steady_clock::now() >= giveUp)
            return Fail(rc, "PRAGMA journal_mode=WAL");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if ((code = Exec("PRAGMA synchronous=NORMAL")) != ERROR_SUCCESS) return code;
    // A save rewrites the same pages in many small commits; a longer log lets a checkpoint copy each
    // page once. The log file is cut back afterwards.
    if ((code = Exec("PRAGMA wal_autocheckpoint=16384; PRAGMA journal_size_limit=16777216")) != ERROR_SUCCESS)
        return code;
    for (int r = 0; r < kRootCount; ++r) {
        std::int64_t id = 0;
        if ((code = FindChild(0, kRootNames[r], &id)) != ERROR_SUCCESS) return code;
        if (id == 0) {
            m_message =
                "the registry store " + m_path + " is damaged (a root key is missing); it was left as it is";
            return ERROR_REGISTRY_CORRUPT;
        }
        m_roots[r] = id;
    }
    return ERROR_SUCCESS;
}

LONG StoreDatabase::FindChild(std::int64_t parent, const std::string& fold, std::int64_t* id) {
    sqlite3_stmt* s = Prepare(kFindChild);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, parent);
    BindBlob(s, 2, fold.data(), fold.size());
    int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        *id = sqlite3_column_int64(s, 0);
        return ERROR_SUCCESS;
    }
    *id = 0;
    return rc == SQLITE_DONE ? ERROR_SUCCESS : Fail(rc, "find key");
}

LONG StoreDatabase::KeyExists(std::int64_t id, bool* exists) {
    sqlite3_stmt* s = Prepare(kKeyExists);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, id);
    int rc = sqlite3_step(s);
    *exists = rc == SQLITE_ROW;
    return rc == SQLITE_ROW || rc == SQLITE_DONE ? ERROR_SUCCESS : Fail(rc, "check key");
}

LONG StoreDatabase::KeyRow(std::int64_t id, std::int64_t* parent, std::string* name) {
    sqlite3_stmt* s = Prepare(kKeyRow);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, id);
    int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
        *parent = sqlite3_column_int64(s, 0);
        *name = ColumnBlob(s, 1);
        return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_KEY_DELETED : Fail(rc, "read key");
}

LONG StoreDatabase::Children(std::int64_t parent, std::vector<StoredChild>* children) {
    children->clear();
    sqlite3_stmt* s = Prepare(kChildren);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, parent);
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW)
        children->push_back({ColumnBlob(s, 0), sqlite3_column_int64(s, 1), sqlite3_column_int64(s, 2)});
    return rc == SQLITE_DONE ? ERROR_SUCCESS : Fail(rc, "list sub-keys");
}

LONG StoreDatabase::GetValue(std::int64_t key, const std::string& name, bool* found, DWORD* type,
                             std::string* data) {
    sqlite3_stmt* s = Prepare(kGetValue);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, key);
    BindText(s, 2, name);
    int rc = sqlite3_step(s);
    *found = rc == SQLITE_ROW;
    if (rc == SQLITE_ROW) {
        *type = static_cast<DWORD>(sqlite3_column_int64(s, 0));
        *data = ColumnBlob(s, 1);
        return ERROR_SUCCESS;
    }
    return rc == SQLITE_DONE ? ERROR_SUCCESS : Fail(rc, "read value");
}

LONG StoreDatabase::Values(std::int64_t key, std::vector<StoredValue>* values) {
    values->clear();
    sqlite3_stmt* s = Prepare(kValues);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, key);
    std::vector<std::int64_t> seqs;
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
        seqs.push_back(sqlite3_column_int64(s, 3));
        values->push_back(
            {ColumnText(s, 0), static_cast<DWORD>(sqlite3_column_int64(s, 1)), ColumnBlob(s, 2)});
    }
    if (rc != SQLITE_DONE) return Fail(rc, "list values");
    InCreationOrder(seqs, *values);
    return ERROR_SUCCESS;
}

void InCreationOrder(const std::vector<std::int64_t>& seqs, std::vector<StoredValue>& values) {
    const size_t n = values.size();
    if (n < 2) return;
    // rank[i]: where row i goes. Rows of the same number (only a damaged file has them) keep their order.
    std::vector<std::uint32_t> rank(n);
    const auto [lo, hi] = std::minmax_element(seqs.begin(), seqs.end());
    const std::uint64_t span = static_cast<std::uint64_t>(*hi) - static_cast<std::uint64_t>(*lo);
    if (span < 4 * static_cast<std::uint64_t>(n)) {
        // The usual case, a dense run of numbers: counted into place.
        std::vector<std::uint32_t> start(span + 2, 0);
        for (std::int64_t seq : seqs) ++start[static_cast<size_t>(seq - *lo) + 1];
        for (size_t j = 1; j < start.size(); ++j) start[j] += start[j - 1];
        for (size_t i = 0; i < n; ++i) rank[i] = start[static_cast<size_t>(seqs[i] - *lo)]++;
    } else {
        std::vector<std::pair<std::int64_t, std::uint32_t>> order(n);
        for (size_t i = 0; i < n; ++i) order[i] = {seqs[i], static_cast<std::uint32_t>(i)};
        std::sort(order.begin(), order.end());
        for (size_t k = 0; k < n; ++k) rank[order[k].second] = static_cast<std::uint32_t>(k);
    }
    // Each swap puts one row where it belongs.
    for (size_t i = 0; i < n; ++i) {
        while (rank[i] != i) {
            const size_t j = rank[i];
            std::swap(values[i], values[j]);
            std::swap(rank[i], rank[j]);
        }
    }
}

LONG StoreDatabase::DataVersion(std::int64_t* version) {
    sqlite3_stmt* s = Prepare(kDataVersion);
    if (!s) return ERROR_CANTREAD;
    StatementScope scope{s};
    int rc = sqlite3_step(s);
    if (rc != SQLITE_ROW) return Fail(rc, "data version");
    *version = sqlite3_column_int64(s, 0);
    return ERROR_SUCCESS;
}

LONG StoreDatabase::CreateChild(std::int64_t parent, const std::string& name, std::int64_t* id) {
    sqlite3_stmt* s = Prepare(kCreateChild);
    if (!s) return ERROR_CANTWRITE;
    StatementScope scope{s};
    std::string fold = FoldName(name);
    sqlite3_bind_int64(s, 1, parent);
    BindBlob(s, 2, fold.data(), fold.size());
    BindBlob(s, 3, name.data(), name.size());
    sqlite3_bind_int64(s, 4, NowSeconds());
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return Fail(rc, "create key");
    *id = sqlite3_last_insert_rowid(m_db);
    m_nextSeq[*id] = 1;  // a new key has no values to count
    return ERROR_SUCCESS;
}

LONG StoreDatabase::SetValue(std::int64_t key, const std::string& name, DWORD type, const void* data,
                             size_t size) {
    sqlite3_stmt* s = Prepare(kSetValue);
    if (!s) return ERROR_CANTWRITE;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, key);
    BindText(s, 2, name);
    std::int64_t seq = 0;
    if (LONG code = NextSeq(key, &seq); code != ERROR_SUCCESS) return code;
    sqlite3_bind_int64(s, 3, seq);
    sqlite3_bind_int64(s, 4, type);
    BindBlob(s, 5, data, size);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return Fail(rc, "write value");
    if (m_touched.empty() || m_touched.back() != key) m_touched.push_back(key);
    return ERROR_SUCCESS;
}

// The next creation-order number of a key: counted once per write transaction, then kept here.
LONG StoreDatabase::NextSeq(std::int64_t key, std::int64_t* seq) {
    auto it = m_nextSeq.find(key);
    if (it == m_nextSeq.end()) {
        sqlite3_stmt* s = Prepare(kMaxSeq);
        if (!s) return ERROR_CANTREAD;
        StatementScope scope{s};
        sqlite3_bind_int64(s, 1, key);
        int rc = sqlite3_step(s);
        if (rc != SQLITE_ROW) return Fail(rc, "write value");
        it = m_nextSeq.emplace(key, sqlite3_column_int64(s, 0) + 1).first;
    }
    *seq = it->second++;
    return ERROR_SUCCESS;
}

LONG StoreDatabase::DeleteValue(std::int64_t key, const std::string& name, bool* found) {
    sqlite3_stmt* s = Prepare(kDeleteValue);
    if (!s) return ERROR_CANTWRITE;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, key);
    BindText(s, 2, name);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return Fail(rc, "delete value");
    *found = sqlite3_changes(m_db) > 0;
    if (*found) m_touched.push_back(key);
    return ERROR_SUCCESS;
}

LONG StoreDatabase::DeleteValues(std::int64_t key) {
    sqlite3_stmt* s = Prepare(kDeleteValues);
    if (!s) return ERROR_CANTWRITE;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, key);
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) return Fail(rc, "delete values");
    m_touched.push_back(key);
    return ERROR_SUCCESS;
}

LONG StoreDatabase::DeleteKeyRow(std::int64_t id) {
    if (LONG code = DeleteValues(id); code != ERROR_SUCCESS) return code;
    sqlite3_stmt* s = Prepare(kDeleteKey);
    if (!s) return ERROR_CANTWRITE;
    StatementScope scope{s};
    sqlite3_bind_int64(s, 1, id);
    int rc = sqlite3_step(s);
    return rc == SQLITE_DONE ? ERROR_SUCCESS : Fail(rc, "delete key");
}

LONG StoreDatabase::BeginRead() {
    if (m_inRead || m_inWrite) return ERROR_SUCCESS;
    LONG code = Exec("BEGIN");
    if (code != ERROR_SUCCESS) return code;
    m_inRead = true;
    // The snapshot starts with the first read.
    bool ignored = false;
    code = KeyExists(m_roots[kCurrentUser], &ignored);
    if (code != ERROR_SUCCESS) EndRead();
    return code;
}

void StoreDatabase::EndRead() {
    if (!m_inRead) return;
    m_inRead = false;
    if (!sqlite3_get_autocommit(m_db)) sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr);
}

LONG StoreDatabase::BeginWrite() {
    if (m_inWrite) return ERROR_SUCCESS;
    // A snapshot cannot become a write if someone committed since; start from the newest state instead.
    EndRead();
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBusyTimeoutMs);
    if (!m_turn.Take(giveUp)) {
        m_message = "BEGIN IMMEDIATE: the registry store " + m_path + " stayed locked by another process";
        return ERROR_CANTWRITE;
    }
    LONG code = Exec("BEGIN IMMEDIATE");
    if (code != ERROR_SUCCESS) {
        m_turn.Give();
        return code;
    }
    m_inWrite = true;
    m_nextSeq.clear();
    return ERROR_SUCCESS;
}

LONG StoreDatabase::Commit() {
    if (!m_inWrite) return ERROR_SUCCESS;
    if (!m_touched.empty()) {
        std::sort(m_touched.begin(), m_touched.end());
        m_touched.erase(std::unique(m_touched.begin(), m_touched.end()), m_touched.end());
        std::int64_t now = NowSeconds();
        if (sqlite3_stmt* s = Prepare(kTouch)) {
            for (std::int64_t id : m_touched) {
                StatementScope scope{s};
                sqlite3_bind_int64(s, 1, id);
                sqlite3_bind_int64(s, 2, now);
                sqlite3_step(s);
            }
        }
        m_touched.clear();
    }
    int rc = sqlite3_exec(m_db, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
        LONG code = Fail(rc, "commit");
        if (!sqlite3_get_autocommit(m_db)) sqlite3_exec(m_db, "ROLLBACK", nullptr, nullptr, nullptr);
        EndWrite();
        return code;
    }
    EndWrite();
    return ERROR_SUCCESS;
}

LONG StoreDatabase::CheckIntegrity() {
    sqlite3_stmt* s = nullptr;
    int rc = sqlite3_prepare_v2(m_db, "PRAGMA integrity_check(1)", -1, &s, nullptr);
    std::string verdict;
    if (rc == SQLITE_OK) {
        rc = sqlite3_step(s);
        if (rc == SQLITE_ROW) {
            verdict = ColumnText(s, 0);
            rc = SQLITE_OK;
        }
    }
    sqlite3_finalize(s);
    if (rc != SQLITE_OK) return Fail(rc, "check");
    if (verdict == "ok") return ERROR_SUCCESS;
    m_message = "the registry store " + m_path + " is damaged (" + verdict + "); it was left as it is";
    return ERROR_REGISTRY_CORRUPT;
}

LONG StoreDatabase::Savepoint() { return Exec("SAVEPOINT step"); }
LONG StoreDatabase::Release() { return Exec("RELEASE step"); }
void StoreDatabase::RollbackToSavepoint() {
    sqlite3_exec(m_db, "ROLLBACK TO step; RELEASE step", nullptr, nullptr, nullptr);
}

LONG StoreDatabase::Sync() {
    if (!m_db) return ERROR_SUCCESS;
    // Committed transactions sit in the write-ahead log; syncing it makes them survive a power loss.
    sqlite3_file* wal = nullptr;
    int rc = sqlite3_file_control(m_db, "main", SQLITE_FCNTL_JOURNAL_POINTER, &wal);
    if (rc == SQLITE_OK && wal && wal->pMethods) rc = wal->pMethods->xSync(wal, SQLITE_SYNC_NORMAL);
    return rc == SQLITE_OK || rc == SQLITE_NOTFOUND ? ERROR_SUCCESS : Fail(rc, "sync");
}

void StoreDatabase::SetSyncEveryCommit(bool on) {
    if (m_db) Exec(on ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
}

}  // namespace tavik::platform
