// Export, import, save and restore of keys in the registry editor's text format.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include "platform/internal/SystemCalls.h"
#include "platform/registry/RegistryStore.h"
#include "platform/registry/internal/RegText.h"

namespace tavik::platform {

namespace {

using tavik::platform::Sys;

// Larger files than this are refused rather than read into memory.
constexpr off_t kMaxTextFile = 256L * 1024 * 1024;

std::string DirectoryOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Writes the whole file beside its place and moves it in, so that a crash leaves the old file or the
// new one. The file is owner-only: settings can hold passwords. With replace false an existing file
// is kept and ERROR_ALREADY_EXISTS returned.
LONG WriteWholeFile(const std::string& path, const std::string& bytes, bool replace, std::string* error) {
    std::string temp;
    int fd = -1;
    std::random_device random;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        char suffix[16];
        std::snprintf(suffix, sizeof suffix, ".tmp-%06x", random() & 0xFFFFFF);
        temp = path + suffix;
        fd = Sys().open(temp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST && errno != EINTR) break;
    }
    if (fd < 0) {
        *error = "cannot create a file beside " + path + ": " + std::strerror(errno);
        return ERROR_CANTWRITE;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = Sys().write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    bool ok = done == bytes.size() && Sys().fsync(fd) == 0;
    int savedErrno = errno;
    Sys().close(fd);
    if (ok) {
        if (replace) {
            ok = Sys().rename(temp.c_str(), path.c_str()) == 0;
        } else {
            ok = Sys().link(temp.c_str(), path.c_str()) == 0;
            savedErrno = errno;
            Sys().unlink(temp.c_str());
            if (!ok && savedErrno == EEXIST) {
                *error = "the file " + path + " already exists";
                return ERROR_ALREADY_EXISTS;
            }
        }
        if (!ok) savedErrno = errno;
    }
    if (!ok) {
        Sys().unlink(temp.c_str());
        *error = "cannot write " + path + ": " + std::strerror(savedErrno);
        return ERROR_CANTWRITE;
    }
    int dir = Sys().open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (dir >= 0) {
        Sys().fsync(dir);
        Sys().close(dir);
    }
    return ERROR_SUCCESS;
}

LONG ReadWholeFile(const char* path, std::string* bytes, std::string* error) {
    int fd = Sys().open(path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        *error = std::string("cannot open ") + path + ": " + std::strerror(errno);
        return errno == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_CANTOPEN;
    }
    struct stat st {};
    if (Sys().fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxTextFile) {
        Sys().close(fd);
        *error = std::string(path) + " is not a regular file of a sensible size";
        return ERROR_INVALID_DATA;
    }
    bytes->resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (done < bytes->size()) {
        ssize_t n = Sys().read(fd, bytes->data() + done, bytes->size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    Sys().close(fd);
    bytes->resize(done);
    return ERROR_SUCCESS;
}

bool IsWithin(const RegTextKey& key, const RegTextKey& base) {
    if (key.root != base.root || key.path.size() < base.path.size()) return false;
    for (size_t i = 0; i < base.path.size(); ++i)
        if (FoldName(key.path[i]) != FoldName(base.path[i])) return false;
    return true;
}

}  // namespace

LONG RegistryStore::FullPath(const Node& node, std::string* path) {
    std::vector<std::string> names;
    if (node.id != 0) {
        std::int64_t id = node.id;
        while (true) {
            std::int64_t parent = 0;
            std::string name;
            if (LONG c = m_db->KeyRow(id, &parent, &name); c != ERROR_SUCCESS)
                return c == ERROR_KEY_DELETED ? c : Fail(c);
            names.push_back(name);  // the root row carries the root's name
            if (parent == 0) break;
            id = parent;
        }
    } else {
        for (const MimeNode* m = node.mime; m; m = m->parent)
            names.push_back(m->parent ? m->name : RootName(node.root));
    }
    path->clear();
    for (auto it = names.rbegin(); it != names.rend(); ++it) {
        if (!path->empty()) *path += '\\';
        *path += *it;
    }
    return ERROR_SUCCESS;
}

// Depth first in hive order, without recursion: keys can nest tens of thousands deep. Below the exported
// key, a key without values that has sub-keys gets no line of its own: its sub-keys' lines create it on
// import, and a line per level would repeat the whole path at every level.
LONG RegistryStore::Export(const Node& top, const std::string& topPath, RegTextWriter& writer) {
    struct Level {
        Node node;
        std::vector<StoredChild> children;
        size_t next = 0;
        size_t pathLength = 0;
    };
    std::vector<Level> levels;
    std::string path = topPath;
    std::vector<StoredValue> values;
    auto enter = [&](const Node& node) -> LONG {
        Level level{node, {}, 0, path.size()};
        if (LONG c = LoadValues(node, &values); c != ERROR_SUCCESS) return c;
        if (LONG c = LoadChildren(node, &level.children); c != ERROR_SUCCESS) return c;
        if (levels.empty() || !values.empty() || level.children.empty()) {
            writer.Key(path);
            for (const StoredValue& value : values) writer.Value(value.name, value.type, value.data);
        }
        levels.push_back(std::move(level));
        return ERROR_SUCCESS;
    };
    if (LONG c = enter(top); c != ERROR_SUCCESS) return c;
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next == level.children.size()) {
            levels.pop_back();
            continue;
        }
        const StoredChild& child = level.children[level.next++];
        Node next;
        if (LONG c = Child(level.node, child.name, &next); c != ERROR_SUCCESS) return c;
        path.resize(level.pathLength);
        path += '\\';
        path += child.name;
        if (LONG c = enter(next); c != ERROR_SUCCESS) return c;
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::ApplyValues(const Node& node, const RegTextKey& key) {
    for (const RegTextValue& value : key.values) {
        if (value.remove) {
            bool found = false;
            if (LONG c = m_db->DeleteValue(node.id, FoldName(value.name), &found); c != ERROR_SUCCESS)
                return Fail(c);
        } else if (LONG c =
                       m_db->SetValue(node.id, value.name, value.type, value.data.data(), value.data.size());
                   c != ERROR_SUCCESS) {
            return Fail(c);
        }
    }
    Changed();
    return ERROR_SUCCESS;
}

LONG RegistryStore::ReadTextFile(const char* file, std::vector<RegTextKey>* keys) {
    if (!file) return ERROR_INVALID_PARAMETER;
    std::string bytes, error;
    if (LONG c = ReadWholeFile(file, &bytes, &error); c != ERROR_SUCCESS) {
        LastMessage() = error;
        return c;
    }
    if (!ParseRegText(bytes, keys, &error)) {
        LastMessage() = std::string(file) + ": " + error;
        return ERROR_INVALID_DATA;
    }
    return ERROR_SUCCESS;
}

LONG RegistryStore::SaveKey(HKEY key, const char* file) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!file || !*file) return ERROR_INVALID_PARAMETER;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (Sys().access(file, F_OK) == 0) return ERROR_ALREADY_EXISTS;
    // A damaged store can hide keys and values from the walk without an error; never pass that off as
    // the whole key.
    if (LONG c = m_db->CheckIntegrity(); c != ERROR_SUCCESS) return Fail(c);
    Handle* h = nullptr;
    if (LONG c = Resolve(key, 0, &h); c != ERROR_SUCCESS) return c;
    std::string path;
    if (LONG c = FullPath(h->node, &path); c != ERROR_SUCCESS) return c;
    RegTextWriter writer;
    if (LONG c = Export(h->node, path, writer); c != ERROR_SUCCESS) return c;
    if (writer.Failed()) {
        LastMessage() = writer.Error();
        return ERROR_INVALID_DATA;
    }
    std::string error;
    LONG c = WriteWholeFile(file, writer.Bytes(), false, &error);
    if (c != ERROR_SUCCESS) LastMessage() = error;
    return c;
}

LONG RegistryStore::ExportKey(const char* keyPath, const char* file) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!keyPath || !file || !*file) return ERROR_INVALID_PARAMETER;
    int root = 0;
    std::vector<std::string> parts;
    std::string error;
    if (!ParseKeyPath(keyPath, &root, &parts, &error)) {
        LastMessage() = error;
        return ERROR_BAD_PATHNAME;
    }
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->CheckIntegrity(); c != ERROR_SUCCESS) return Fail(c);
    Handle* h = nullptr;
    if (LONG c = Resolve(root == StoreDatabase::kClassesRoot ? HKEY_CLASSES_ROOT : HKEY_CURRENT_USER, 0, &h);
        c != ERROR_SUCCESS)
        return c;
    Node node;
    size_t found = 0;
    if (LONG c = Walk(h->node, parts, &node, &found); c != ERROR_SUCCESS) return c;
    if (found < parts.size()) {
        LastMessage() = std::string("no key ") + keyPath;
        return ERROR_FILE_NOT_FOUND;
    }
    std::string path;
    if (LONG c = FullPath(node, &path); c != ERROR_SUCCESS) return c;
    RegTextWriter writer;
    if (LONG c = Export(node, path, writer); c != ERROR_SUCCESS) return c;
    if (writer.Failed()) {
        LastMessage() = writer.Error();
        return ERROR_INVALID_DATA;
    }
    LONG c = WriteWholeFile(file, writer.Bytes(), true, &error);
    if (c != ERROR_SUCCESS) LastMessage() = error;
    return c;
}

LONG RegistryStore::ImportFile(const char* file) {
    std::lock_guard<std::mutex> lock(m_mutex);
    LastMessage().clear();
    std::vector<RegTextKey> keys;
    if (LONG c = ReadTextFile(file, &keys); c != ERROR_SUCCESS) return c;
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (LONG c = WriteBegin(); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->Savepoint(); c != ERROR_SUCCESS) return Fail(c);
    // All lines or none: the savepoint is rolled back at the first failure.
    auto apply = [&]() -> LONG {
        for (const RegTextKey& key : keys) {
            Handle* root = &m_roots[key.root];
            if (LONG c =
                    Resolve(key.root == StoreDatabase::kClassesRoot ? HKEY_CLASSES_ROOT : HKEY_CURRENT_USER,
                            0, &root);
                c != ERROR_SUCCESS)
                return c;
            Node node;
            size_t found = 0;
            if (LONG c = Walk(root->node, key.path, &node, &found); c != ERROR_SUCCESS) return c;
            if (key.remove) {
                if (found == key.path.size() && !key.path.empty())
                    if (LONG c = DeleteTree(node); c != ERROR_SUCCESS) return c;
                continue;
            }
            if (LONG c = CreatePath(&node, key.path, found); c != ERROR_SUCCESS) return c;
            if (LONG c = ApplyValues(node, key); c != ERROR_SUCCESS) return c;
        }
        return ERROR_SUCCESS;
    };
    LONG code = apply();
    if (code != ERROR_SUCCESS) {
        m_db->RollbackToSavepoint();
        ExternalChange();
        return code;
    }
    if (LONG c = m_db->Release(); c != ERROR_SUCCESS) return Fail(c);
    ExternalChange();  // keys may have gone from under open handles
    if (LONG c = Commit(); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->Sync(); c != ERROR_SUCCESS) return Fail(c);
    m_unsynced = false;
    return ERROR_SUCCESS;
}

LONG RegistryStore::RestoreKey(HKEY key, const char* file) {
    std::lock_guard<std::mutex> lock(m_mutex);
    LastMessage().clear();
    std::vector<RegTextKey> keys;
    if (LONG c = ReadTextFile(file, &keys); c != ERROR_SUCCESS) return c;
    for (const RegTextKey& k : keys) {
        if (k.remove || !IsWithin(k, keys.front()) ||
            std::any_of(k.values.begin(), k.values.end(), [](const RegTextValue& v) { return v.remove; })) {
            LastMessage() = std::string(file) + ": line " + std::to_string(k.line) +
                            ": not part of the key saved first in the file";
            return ERROR_INVALID_DATA;
        }
    }
    if (LONG c = Ready(); c != ERROR_SUCCESS) return c;
    if (LONG c = WriteBegin(); c != ERROR_SUCCESS) return c;
    Handle* h = nullptr;
    if (LONG c = Resolve(key, 0, &h); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->Savepoint(); c != ERROR_SUCCESS) return Fail(c);
    auto apply = [&]() -> LONG {
        if (LONG c = Materialise(&h->node); c != ERROR_SUCCESS) return c;
        Node base = h->node;
        std::vector<StoredChild> children;
        if (LONG c = m_db->Children(base.id, &children); c != ERROR_SUCCESS) return Fail(c);
        for (const StoredChild& child : children)
            if (LONG c = DeleteTree(Node{base.root, child.id, nullptr}); c != ERROR_SUCCESS) return c;
        if (LONG c = m_db->DeleteValues(base.id); c != ERROR_SUCCESS) return Fail(c);
        size_t skip = keys.empty() ? 0 : keys.front().path.size();
        for (const RegTextKey& k : keys) {
            std::vector<std::string> rest(k.path.begin() + static_cast<std::ptrdiff_t>(skip), k.path.end());
            Node node;
            size_t found = 0;
            if (LONG c = Walk(base, rest, &node, &found); c != ERROR_SUCCESS) return c;
            if (LONG c = CreatePath(&node, rest, found); c != ERROR_SUCCESS) return c;
            if (LONG c = ApplyValues(node, k); c != ERROR_SUCCESS) return c;
        }
        return ERROR_SUCCESS;
    };
    LONG code = apply();
    if (code != ERROR_SUCCESS) {
        m_db->RollbackToSavepoint();
        ExternalChange();
        return code;
    }
    if (LONG c = m_db->Release(); c != ERROR_SUCCESS) return Fail(c);
    ExternalChange();
    if (LONG c = Commit(); c != ERROR_SUCCESS) return c;
    if (LONG c = m_db->Sync(); c != ERROR_SUCCESS) return Fail(c);
    m_unsynced = false;
    return ERROR_SUCCESS;
}

}  // namespace tavik::platform
