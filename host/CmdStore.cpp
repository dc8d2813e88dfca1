// tavik store: looks inside any compound file (the library's stores, or any other).
//   tavik store tree FILE        one line per element: type, size, path
//   tavik store cat FILE PATH    one stream's bytes to standard output
// Names are shown as UTF-8 with control characters as \xNN; the same escapes are accepted in PATH.
#include <cstdio>
#include <string>
#include <vector>

#include "host/Commands.h"
#include "platform/OleStorage.h"

namespace tavik::host {
namespace {

constexpr DWORD kReadMode = STGM_READ | STGM_SHARE_DENY_NONE | STGM_TRANSACTED;
constexpr DWORD kElementMode = STGM_READ | STGM_SHARE_EXCLUSIVE;

std::string Show(const OLECHAR* name) {
    std::string out;
    for (const OLECHAR* p = name; *p; ++p) {
        std::uint32_t c = *p;
        if (c >= 0xD800 && c < 0xDC00 && p[1] >= 0xDC00 && p[1] < 0xE000) c = 0x10000 + ((c - 0xD800) << 10) + (*++p - 0xDC00);
        if (c < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned>(c));
            out += esc;
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// UTF-8 with \xNN escapes -> UTF-16.
std::u16string Parse(const std::string& s) {
    std::u16string out;
    for (std::size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '\\' && i + 3 < s.size() && s[i + 1] == 'x') {
            out.push_back(static_cast<char16_t>(std::stoul(s.substr(i + 2, 2), nullptr, 16)));
            i += 4;
            continue;
        }
        std::uint32_t cp = c;
        int len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : 4;
        if (len > 1) cp = c & (0x7F >> len);
        for (int k = 1; k < len && i + k < s.size(); ++k) cp = (cp << 6) | (static_cast<unsigned char>(s[i + k]) & 0x3F);
        i += len;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
    }
    return out;
}

int Fail(const std::string& what, HRESULT hr) {
    std::fprintf(stderr, "tavik store: %s: error 0x%08X\n", what.c_str(), static_cast<unsigned>(hr));
    return 1;
}

HRESULT Tree(IStorage* stg, const std::string& prefix, int depth) {
    IEnumSTATSTG* en = nullptr;
    HRESULT hr = stg->EnumElements(0, nullptr, 0, &en);
    if (FAILED(hr)) return hr;
    STATSTG st;
    ULONG got = 0;
    while (SUCCEEDED(hr) && en->Next(1, &st, &got) == S_OK) {
        std::string path = prefix + "/" + Show(st.pwcsName);
        bool storage = st.type == STGTY_STORAGE;
        std::printf("%-7s %12llu  %s\n", storage ? "storage" : "stream",
                    static_cast<unsigned long long>(st.cbSize.QuadPart), path.c_str());
        if (storage && depth < 256) {
            IStorage* sub = nullptr;
            hr = stg->OpenStorage(st.pwcsName, nullptr, kElementMode, nullptr, 0, &sub);
            if (SUCCEEDED(hr)) {
                hr = Tree(sub, path, depth + 1);
                sub->Release();
            }
        }
        CoTaskMemFree(st.pwcsName);
    }
    en->Release();
    return hr;
}

int Cat(IStorage* root, const std::string& path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    if (parts.empty()) return Fail(path + ": no stream named", STG_E_INVALIDNAME);
    IStorage* at = root;
    at->AddRef();
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        IStorage* next = nullptr;
        HRESULT hr = at->OpenStorage(Parse(parts[i]).c_str(), nullptr, kElementMode, nullptr, 0, &next);
        at->Release();
        if (FAILED(hr)) return Fail(parts[i], hr);
        at = next;
    }
    IStream* s = nullptr;
    HRESULT hr = at->OpenStream(Parse(parts.back()).c_str(), nullptr, kElementMode, 0, &s);
    at->Release();
    if (FAILED(hr)) return Fail(path, hr);
    std::vector<unsigned char> buf(1 << 16);
    ULONG n = 0;
    while (SUCCEEDED(hr = s->Read(buf.data(), static_cast<ULONG>(buf.size()), &n)) && n > 0) {
        if (std::fwrite(buf.data(), 1, n, stdout) != n) {
            s->Release();
            return Fail("standard output", STG_E_WRITEFAULT);
        }
    }
    s->Release();
    if (FAILED(hr)) return Fail(path, hr);
    return std::fflush(stdout) == 0 ? 0 : 1;
}

}  // namespace

int RunStore(const Args& args) {
    if (args.size() < 2 || (args[0] == "tree" && args.size() != 2) || (args[0] == "cat" && args.size() != 3) ||
        (args[0] != "tree" && args[0] != "cat")) {
        std::fprintf(stderr, "usage: tavik store tree FILE\n       tavik store cat FILE PATH\n");
        return 2;
    }
    IStorage* root = nullptr;
    HRESULT hr = StgOpenStorage(args[1].c_str(), nullptr, kReadMode, nullptr, 0, &root);
    if (FAILED(hr)) return Fail(args[1], hr);
    int rc;
    if (args[0] == "tree") {
        std::printf("%-7s %12s  %s\n", "storage", "0", "/");
        hr = Tree(root, "", 0);
        rc = FAILED(hr) ? Fail(args[1], hr) : 0;
    } else {
        rc = Cat(root, args[2]);
    }
    root->Release();
    return rc;
}

}  // namespace tavik::host
