// tavik store: looks inside any compound file (the library's stores, or any other).
//   tavik store tree FILE        one line per element: type, size, path
//   tavik store cat FILE PATH    one stream's bytes to standard output
// Names are shown as UTF-8 with control characters as \xNN; the same escapes are accepted in PATH.
#include <cstdio>
#include <string>
#include <vector>

#include "host/Commands.h"
#include "platform/OleStorage.h"
#include "platform/Unicode.h"

namespace tavik::host {
namespace {

constexpr DWORD kReadMode = STGM_READ | STGM_SHARE_DENY_NONE | STGM_TRANSACTED;
constexpr DWORD kElementMode = STGM_READ | STGM_SHARE_EXCLUSIVE;

std::string Show(const OLECHAR* name) {
    std::u16string_view text(name);
    std::string out;
    std::size_t run = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] >= 0x20) continue;
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned>(text[i]));
        out += ::detail::WideToUtf8(text.substr(run, i - run)) + esc;
        run = i + 1;
    }
    return out + ::detail::WideToUtf8(text.substr(run));
}

// UTF-8 with \xNN escapes -> UTF-16.
std::u16string Parse(const std::string& s) {
    std::u16string out;
    std::size_t run = 0;
    for (std::size_t i = 0; i < s.size();) {
        if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x') {
            out += ::detail::Utf8ToWide(std::string_view(s).substr(run, i - run));
            out.push_back(static_cast<char16_t>(std::stoul(s.substr(i + 2, 2), nullptr, 16)));
            run = i += 4;
        } else {
            ++i;
        }
    }
    return out + ::detail::Utf8ToWide(std::string_view(s).substr(run));
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
    if (args.size() < 2 || (args[0] == "tree" && args.size() != 2) ||
        (args[0] == "cat" && args.size() != 3) || (args[0] != "tree" && args[0] != "cat")) {
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
