#include "platform/Shell.h"

#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/internal/SmallFile.h"
#include "platform/internal/SystemCalls.h"

namespace {

struct Glob {
    int weight;
    std::string type;
    std::string pattern;
    bool caseSensitive;
};

// The parsed database; reloaded when the folder changes.
struct MimeDatabase {
    explicit MimeDatabase(std::string where) : folder(std::move(where)) {}
    std::string folder;
    bool loaded = false;
    std::map<std::string, std::string> byExtension;  // lower-case ".ext" -> type, best weight first wins
    std::vector<Glob> others;                        // patterns that are not a plain "*.ext"
    std::map<std::string, std::string> aliases;
    std::map<std::string, std::string> comments;  // cache of descriptions
};

std::mutex g_lock;
MimeDatabase g_db("/usr/share/mime");
// The system's lists are a few hundred kilobytes; a larger file is not one of them.
constexpr size_t kMaxListFile = 16 << 20;

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

void load(MimeDatabase& db) {
    if (db.loaded) return;
    db.loaded = true;
    std::string bytes;
    tavik::platform::ReadSmallFile(db.folder + "/globs2", bytes, kMaxListFile);
    std::istringstream globs(bytes);
    std::string line;
    while (std::getline(globs, line)) {
        if (line.empty() || line[0] == '#') continue;
        size_t a = line.find(':');
        size_t b = a == std::string::npos ? a : line.find(':', a + 1);
        if (b == std::string::npos) continue;
        size_t c = line.find(':', b + 1);
        Glob g{std::atoi(line.substr(0, a).c_str()), line.substr(a + 1, b - a - 1),
               line.substr(b + 1, c == std::string::npos ? std::string::npos : c - b - 1), false};
        if (c != std::string::npos && line.find("cs", c) != std::string::npos) g.caseSensitive = true;
        // globs2 lists the heaviest patterns first; the first entry for an extension stands.
        bool plainExt = g.pattern.size() > 2 && g.pattern.compare(0, 2, "*.") == 0 &&
                        g.pattern.find_first_of("*?[", 1) == std::string::npos;
        if (plainExt && !g.caseSensitive)
            db.byExtension.emplace(lower(g.pattern.substr(1)), g.type);
        else
            db.others.push_back(g);
    }
    tavik::platform::ReadSmallFile(db.folder + "/aliases", bytes, kMaxListFile);
    std::istringstream aliases(bytes);
    while (std::getline(aliases, line)) {
        size_t sp = line.find(' ');
        if (sp != std::string::npos) db.aliases.emplace(line.substr(0, sp), line.substr(sp + 1));
    }
}

std::string decodeEntities(const std::string& s) {
    static const std::pair<const char*, char> kEntities[] = {
        {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string out;
    for (size_t i = 0; i < s.size();) {
        bool replaced = false;
        if (s[i] == '&') {
            for (auto& [name, ch] : kEntities) {
                size_t n = std::strlen(name);
                if (s.compare(i, n, name) == 0) {
                    out += ch;
                    i += n;
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) out += s[i++];
    }
    return out;
}

// The untranslated <comment> of a type's description file.
std::string comment(MimeDatabase& db, std::string type) {
    auto alias = db.aliases.find(type);
    if (alias != db.aliases.end()) type = alias->second;
    auto cached = db.comments.find(type);
    if (cached != db.comments.end()) return cached->second;
    std::string text;
    if (type.find("..") == std::string::npos) {
        std::string bytes;
        tavik::platform::ReadSmallFile(db.folder + "/" + type + ".xml", bytes, kMaxListFile);
        std::istringstream xml(bytes);
        std::string line;
        while (std::getline(xml, line)) {
            size_t open = line.find("<comment>");
            if (open == std::string::npos) continue;
            size_t close = line.find("</comment>", open);
            if (close == std::string::npos) continue;
            text = decodeEntities(line.substr(open + 9, close - open - 9));
            break;
        }
    }
    db.comments.emplace(type, text);
    return text;
}

std::string typeOf(MimeDatabase& db, const std::string& name) {
    // The longest extension first, so "x.tar.gz" finds the archive type before plain gzip.
    for (size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', dot + 1)) {
        auto it = db.byExtension.find(lower(name.substr(dot)));
        if (it != db.byExtension.end()) return it->second;
    }
    const Glob* best = nullptr;
    for (const Glob& g : db.others) {
        if (fnmatch(g.pattern.c_str(), name.c_str(), g.caseSensitive ? 0 : FNM_CASEFOLD) == 0 &&
            (!best || g.weight > best->weight))
            best = &g;
    }
    return best ? best->type : std::string();
}

}  // namespace

void TavikSetMimeDatabase(const char* directory) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_db = MimeDatabase(directory && *directory ? directory : "/usr/share/mime");
}

DWORD_PTR SHGetFileInfo(const char* path, DWORD fileAttributes, SHFILEINFO* info, UINT size, UINT flags) {
    if (!path || !info || size < sizeof(SHFILEINFO)) return 0;
    std::memset(info, 0, sizeof *info);
    std::string p = path;
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    bool directory = false;
    if (flags & SHGFI_USEFILEATTRIBUTES) {
        directory = (fileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    } else {
        struct stat st;
        if (p.empty() || tavik::platform::Sys().stat(p.c_str(), &st) != 0) return 0;
        directory = S_ISDIR(st.st_mode);
    }
    std::string name = p.substr(p.rfind('/') == std::string::npos ? 0 : p.rfind('/') + 1);
    if (flags & SHGFI_DISPLAYNAME)
        std::snprintf(info->szDisplayName, sizeof info->szDisplayName, "%s", name.c_str());
    if (flags & SHGFI_TYPENAME) {
        std::string text;
        {
            std::lock_guard<std::mutex> lock(g_lock);
            load(g_db);
            std::string type = directory ? "inode/directory" : typeOf(g_db, name);
            if (!type.empty()) text = comment(g_db, type);
        }
        if (text.empty() && directory) text = "File folder";
        if (text.empty()) {
            size_t dot = name.rfind('.');
            std::string ext = dot == std::string::npos || dot + 1 == name.size() ? "" : name.substr(dot + 1);
            for (char& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            text = ext.empty() ? "File" : ext + " File";
        }
        std::snprintf(info->szTypeName, sizeof info->szTypeName, "%s", text.c_str());
    }
    return 1;
}
