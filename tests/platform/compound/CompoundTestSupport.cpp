#include "tests/platform/compound/CompoundTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/wait.h>
#include <unistd.h>

#include "platform/CString.h"

namespace tavik::test {

std::vector<unsigned char> Pattern(std::size_t size, unsigned seed) {
    std::vector<unsigned char> v(size);
    std::uint32_t x = seed * 2654435761u + 1;
    for (auto& b : v) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        b = static_cast<unsigned char>(x);
    }
    return v;
}

std::uint32_t Crc32(const std::vector<unsigned char>& data) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (unsigned char b : data) {
        crc ^= b;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}

HRESULT PutStream(IStorage* stg, const char* name, const std::vector<unsigned char>& data) {
    Com<IStream> s;
    HRESULT hr = stg->CreateStream(name, kRW | STGM_CREATE, 0, 0, s.out());
    if (FAILED(hr)) return hr;
    ULONG written = 0;
    return s->Write(data.data(), static_cast<ULONG>(data.size()), &written);
}

std::vector<unsigned char> GetStream(IStorage* stg, const char* name, HRESULT* result) {
    Com<IStream> s;
    HRESULT hr = stg->OpenStream(name, nullptr, kRO, 0, s.out());
    std::vector<unsigned char> data;
    if (SUCCEEDED(hr)) {
        // In pieces: a damaged file may declare a size far beyond its bytes.
        unsigned char buf[65536];
        ULONG got = 0;
        while (SUCCEEDED(hr = s->Read(buf, sizeof buf, &got)) && got > 0)
            data.insert(data.end(), buf, buf + got);
        STATSTG st;
        if (SUCCEEDED(hr)) hr = s->Stat(&st, STATFLAG_NONAME);
        if (SUCCEEDED(hr) && st.cbSize.QuadPart != data.size()) hr = E_FAIL;
    }
    if (FAILED(hr)) data.clear();
    if (result) *result = hr;
    return data;
}

Com<IStorage> OpenPath(IStorage* stg, const std::string& path, DWORD mode) {
    Com<IStorage> cur;
    IStorage* at = stg;
    std::stringstream parts(path);
    std::string part;
    while (std::getline(parts, part, '/')) {
        Com<IStorage> next;
        if (FAILED(at->OpenStorage(part.c_str(), nullptr, mode, nullptr, 0, next.out()))) return {};
        cur = std::move(next);
        at = cur.get();
    }
    return cur;
}

namespace {

void Walk(IStorage* stg, const std::string& prefix, std::vector<std::string>& out) {
    Com<IEnumSTATSTG> en;
    if (FAILED(stg->EnumElements(0, nullptr, 0, en.out()))) return;
    STATSTG st;
    ULONG n = 0;
    while (en->Next(1, &st, &n) == S_OK && n == 1) {
        std::string name = WideToAnsi(st.pwcsName);
        CoTaskMemFree(st.pwcsName);
        std::string shown;
        for (char c : name) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", static_cast<unsigned char>(c));
            shown += static_cast<unsigned char>(c) < 0x20 ? std::string(esc) : std::string(1, c);
        }
        std::string path = prefix.empty() ? shown : prefix + "/" + shown;
        if (st.type == STGTY_STORAGE) {
            out.push_back("d " + path);
            Com<IStorage> sub;
            if (SUCCEEDED(stg->OpenStorage(name.c_str(), nullptr, kRO, nullptr, 0, sub.out())))
                Walk(sub.get(), path, out);
        } else {
            HRESULT hr = S_OK;
            auto data = GetStream(stg, name.c_str(), &hr);
            char line[64];
            std::snprintf(line, sizeof line, " %zu %08x", data.size(), Crc32(data));
            out.push_back("f " + path + (FAILED(hr) ? std::string(" <unreadable>") : std::string(line)));
        }
    }
}

}  // namespace

std::vector<std::string> ListTree(IStorage* root) {
    std::vector<std::string> out;
    Walk(root, "", out);
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> ListFile(const std::string& path) {
    Com<IStorage> root;
    if (FAILED(StgOpenStorage(path.c_str(), nullptr, kRO, nullptr, 0, root.out()))) return {"<cannot open>"};
    return ListTree(root.get());
}

ToolResult RunTool(const std::string& command) {
    static int counter = 0;
    auto dir = std::filesystem::temp_directory_path();
    std::string out =
        (dir / ("tavik-run-" + std::to_string(::getpid()) + "-" + std::to_string(counter) + ".out")).string();
    std::string err =
        (dir / ("tavik-run-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".err"))
            .string();
    int rc = std::system((command + " >" + out + " 2>" + err).c_str());
    ToolResult r;
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    auto slurp = [](const std::string& p) {
        std::ifstream f(p, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(f), {});
    };
    r.out = slurp(out);
    r.err = slurp(err);
    std::filesystem::remove(out);
    std::filesystem::remove(err);
    return r;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> v;
    std::stringstream ss(text);
    std::string line;
    while (std::getline(ss, line))
        if (!line.empty()) v.push_back(line);
    return v;
}

std::string Quote(const std::string& text) {
    std::string q = "'";
    for (char c : text) {
        if (c == '\'')
            q += "'\\''";
        else
            q += c;
    }
    return q + "'";
}

std::string SourceDir() { return TAVIK_COMPOUND_TEST_DIR; }

}  // namespace tavik::test
