// tavik store: looks inside any compound file (the library's stores, or any other).
//   tavik store tree FILE        one line per element: type, size, path
//   tavik store cat FILE PATH    one stream's bytes
// Names are shown as UTF-8 with control characters as \xNN; the same escapes are accepted in PATH.
#include <cctype>
#include <list>
#include <string>
#include <vector>

#include "host/Commands.h"
#include "messages/CStorageManager.h"
#include "platform/OleStorage.h"
#include "platform/Unicode.h"

namespace tavik::host {

namespace {

constexpr DWORD kElementMode = STGM_READ | STGM_SHARE_EXCLUSIVE;

std::string Show(const OLECHAR* name) {
    std::u16string_view text(name);
    std::string out;
    std::size_t run = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] >= 0x20) continue;
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned>(text[i]));
        out += TavikWideToUtf8(text.substr(run, i - run)) + esc;
        run = i + 1;
    }
    return out + TavikWideToUtf8(text.substr(run));
}

// UTF-8 with \xNN escapes -> the library's single-byte names (Windows-1252). False when a character has
// no place in it: no store of the library's has such a name.
bool Parse(const std::string& s, std::string& name) {
    std::u16string wide;
    std::size_t run = 0;
    for (std::size_t i = 0; i < s.size();) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x' &&
            std::isxdigit(static_cast<unsigned char>(s[i + 2])) &&
            std::isxdigit(static_cast<unsigned char>(s[i + 3]))) {
            wide += TavikUtf8ToWide(std::string_view(s).substr(run, i - run));
            wide.push_back(static_cast<char16_t>(std::stoul(s.substr(i + 2, 2), nullptr, 16)));
            run = i += 4;
        } else {
            ++i;
        }
    }
    wide += TavikUtf8ToWide(std::string_view(s).substr(run));
    name.assign(wide.size(), '\0');
    BOOL lossy = FALSE;
    int n =
        WideCharToMultiByte(CP_ACP, 0, reinterpret_cast<LPCWSTR>(wide.data()), static_cast<int>(wide.size()),
                            name.data(), static_cast<int>(name.size()), nullptr, &lossy);
    return wide.empty() || (n == static_cast<int>(wide.size()) && !lossy);
}

// "STG_E_SHAREVIOLATION: the file is open elsewhere, ... (0x80030020)"; the number alone for a code
// without a name.
std::string Describe(HRESULT hr) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(hr));
    const char* name = StgErrorName(hr);
    return name ? std::string(name) + ": " + StgErrorText(hr) + " (" + code + ")"
                : "error " + std::string(code);
}

// Read-only and denying nothing, so that a store another reader has open can be looked at (one open for
// writing or exclusively cannot, as on Windows) and a missing file is not created: the storage manager
// opens its files to write and creates them. Null after a failure.
IStorage* OpenForReading(const Invocation& call, const std::string& file) {
    IStorage* root = nullptr;
    HRESULT hr = StgOpenStorage(file.c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_NONE | STGM_TRANSACTED,
                                nullptr, 0, &root);
    if (FAILED(hr)) call.Fail(file + ": " + Describe(hr));
    return FAILED(hr) ? nullptr : root;
}

// The storage manager has no listing of elements: the tree walks the storages itself.
HRESULT Tree(FILE* out, IStorage* stg, const std::string& prefix, int depth) {
    IEnumSTATSTG* en = nullptr;
    HRESULT hr = stg->EnumElements(0, nullptr, 0, &en);
    if (FAILED(hr)) return hr;
    STATSTG st;
    ULONG got = 0;
    while (SUCCEEDED(hr) && en->Next(1, &st, &got) == S_OK) {
        std::string path = prefix + "/" + Show(st.pwcsName);
        bool storage = st.type == STGTY_STORAGE;
        std::fprintf(out, "%-7s %12llu  %s\n", storage ? "storage" : "stream",
                     static_cast<unsigned long long>(st.cbSize.QuadPart), path.c_str());
        if (storage && depth < 256) {
            IStorage* sub = nullptr;
            hr = stg->OpenStorage(st.pwcsName, nullptr, kElementMode, nullptr, 0, &sub);
            if (SUCCEEDED(hr)) {
                hr = Tree(out, sub, path, depth + 1);
                sub->Release();
            }
        }
        CoTaskMemFree(st.pwcsName);
    }
    en->Release();
    return hr;
}

int RunTree(const Invocation& call) {
    const std::string& file = call.args.Positional(0);
    IStorage* root = OpenForReading(call, file);
    if (!root) return 1;
    CStorageManager store(root);
    root->Release();
    std::fprintf(call.out, "%-7s %12s  %s\n", "storage", "0", "/");
    HRESULT hr = Tree(call.out, store.GetStorage(), "", 0);
    return FAILED(hr) ? call.Fail(file + ": " + Describe(hr)) : 0;
}

int RunCat(const Invocation& call) {
    const std::string& file = call.args.Positional(0);
    const std::string& path = call.args.Positional(1);
    std::vector<std::string> parts;
    for (std::size_t start = 0; start <= path.size();) {
        std::size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) {
            std::string name;
            if (!Parse(path.substr(start, slash - start), name))
                return call.Fail(path + ": a name outside Windows-1252, which no store of the library uses");
            parts.push_back(name);
        }
        start = slash + 1;
    }
    if (parts.empty()) throw UsageError("PATH names no stream");
    IStorage* root = OpenForReading(call, file);
    if (!root) return 1;
    // The innermost storage first, so that each is closed before its parent.
    std::list<CStorageManager> open;
    open.emplace_front(root);
    root->Release();
    std::string bytes;
    try {
        for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
            IStorage* parent = open.front().GetStorage();
            open.emplace_front().OpenSubStorage(parent, parts[i].c_str(), kElementMode, false, false);
        }
        if (!open.front().ReadBytes(parts.back().c_str(), bytes)) return call.Fail(path + ": no such stream");
    } catch (CStorageManagerException* e) {
        // Its text has gone to the error window already.
        e->Delete();
        return call.Fail("cannot read " + path + " in " + file);
    }
    if (std::fwrite(bytes.data(), 1, bytes.size(), call.out) != bytes.size() || std::fflush(call.out) != 0)
        return call.Fail("cannot write the stream's bytes");
    return 0;
}

}  // namespace

const Command& StoreCommand() {
    static const Command command{
        .name = "store",
        .summary = "show the tree of a compound file, or one stream's bytes",
        .details = "Names are shown as UTF-8 with control characters as \\xNN; PATH takes the same escapes.",
        .subcommands =
            {
                {
                    .name = "tree",
                    .summary = "one line per element of FILE: type, size, path",
                    .arguments = "FILE",
                    .minArguments = 1,
                    .maxArguments = 1,
                    .run = RunTree,
                },
                {
                    .name = "cat",
                    .summary = "the bytes of the stream at PATH (storages/stream) in FILE",
                    .arguments = "FILE PATH",
                    .minArguments = 2,
                    .maxArguments = 2,
                    .details =
                        "Names are written as 'tree' shows them, UTF-8 with control characters as \\xNN.",
                    .run = RunCat,
                },
            },
    };
    return command;
}

}  // namespace tavik::host
