// Compound files at mail-store scale: 10,000 sub-storages of five streams (about 100 MB), written and
// committed, then opened, enumerated and read whole; compared, in the same run, with plain file I/O of
// the same number of bytes and with python3-olefile reading the same file.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/OleStorage.h"

namespace {

constexpr int kStorages = 10000;
constexpr DWORD kRW = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr DWORD kRO = STGM_READ | STGM_SHARE_EXCLUSIVE;

// The shape of one cached message: small fields, a header, a body.
struct Part {
    const char* name;
    std::size_t size;
};
constexpr Part kParts[] = {
    {"Identification", 40}, {"Folder", 12}, {"Numeric Data", 32}, {"Header", 1900}, {"Body", 8000}};

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void Check(HRESULT hr, const char* what) {
    if (FAILED(hr)) {
        std::fprintf(stderr, "bench_compound: %s failed: 0x%08x\n", what, static_cast<unsigned>(hr));
        std::exit(1);
    }
}

std::uint64_t WriteStore(const std::string& path, const std::vector<unsigned char>& bytes) {
    IStorage* root = nullptr;
    Check(StgCreateDocfile(path.c_str(), kRW | STGM_CREATE, 0, &root), "create");
    std::uint64_t total = 0;
    char name[32];
    for (int i = 0; i < kStorages; ++i) {
        std::snprintf(name, sizeof name, "M%08d", i);
        IStorage* sub = nullptr;
        Check(root->CreateStorage(name, kRW, 0, 0, &sub), "create storage");
        for (const Part& p : kParts) {
            IStream* s = nullptr;
            Check(sub->CreateStream(p.name, kRW | STGM_CREATE, 0, 0, &s), "create stream");
            ULONG n = 0;
            Check(s->Write(bytes.data() + (i % 1000), static_cast<ULONG>(p.size), &n), "write");
            total += n;
            s->Release();
        }
        sub->Release();
    }
    Check(root->Commit(STGC_DEFAULT), "commit");
    root->Release();
    return total;
}

std::uint64_t ReadStore(const std::string& path) {
    IStorage* root = nullptr;
    Check(StgOpenStorage(path.c_str(), nullptr, kRO, nullptr, 0, &root), "open");
    std::vector<unsigned char> buf(1 << 16);
    std::uint64_t total = 0;
    IEnumSTATSTG* en = nullptr;
    Check(root->EnumElements(0, nullptr, 0, &en), "enumerate");
    STATSTG st;
    ULONG got = 0;
    while (en->Next(1, &st, &got) == S_OK) {
        IStorage* sub = nullptr;
        Check(root->OpenStorage(st.pwcsName, nullptr, kRO, nullptr, 0, &sub), "open storage");
        CoTaskMemFree(st.pwcsName);
        IEnumSTATSTG* inner = nullptr;
        Check(sub->EnumElements(0, nullptr, 0, &inner), "enumerate storage");
        STATSTG ss;
        while (inner->Next(1, &ss, &got) == S_OK) {
            IStream* s = nullptr;
            Check(sub->OpenStream(ss.pwcsName, nullptr, kRO, 0, &s), "open stream");
            CoTaskMemFree(ss.pwcsName);
            ULONG n = 0;
            do {
                Check(s->Read(buf.data(), static_cast<ULONG>(buf.size()), &n), "read");
                total += n;
            } while (n > 0);
            s->Release();
        }
        inner->Release();
        sub->Release();
    }
    en->Release();
    root->Release();
    return total;
}

// The references: the same number of bytes written to a plain file sequentially in 1 MB pieces and
// fsynced once, and read back in 64 KB pieces. For scale, also what a program without compound files
// would do with the same fields: each written and read through stdio, one by one.
void PlainWrite(const std::string& path, const std::vector<unsigned char>& bytes, std::uint64_t total) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) std::exit(1);
    for (std::uint64_t done = 0; done < total;) {
        std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), total - done));
        if (::write(fd, bytes.data(), n) != static_cast<ssize_t>(n)) std::exit(1);
        done += n;
    }
    ::fsync(fd);
    ::close(fd);
}

std::uint64_t PlainRead(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) std::exit(1);
    std::vector<unsigned char> buf(1 << 16);
    std::uint64_t total = 0;
    ssize_t n;
    while ((n = ::read(fd, buf.data(), buf.size())) > 0) total += static_cast<std::uint64_t>(n);
    ::close(fd);
    return total;
}

void FieldsWrite(const std::string& path, const std::vector<unsigned char>& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::exit(1);
    for (int i = 0; i < kStorages; ++i) {
        for (const Part& p : kParts)
            if (std::fwrite(bytes.data() + (i % 1000), 1, p.size, f) != p.size) std::exit(1);
    }
    if (std::fflush(f) != 0) std::exit(1);
    ::fsync(::fileno(f));
    std::fclose(f);
}

std::uint64_t FieldsRead(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) std::exit(1);
    std::vector<unsigned char> buf(1 << 16);
    std::uint64_t total = 0;
    for (int i = 0; i < kStorages; ++i) {
        for (const Part& p : kParts) total += std::fread(buf.data(), 1, p.size, f);
    }
    std::fclose(f);
    return total;
}

struct Figures {
    double commit = 1e9, read = 1e9, plainWrite = 1e9, plainRead = 1e9, fieldsWrite = 1e9, fieldsRead = 1e9;
};

template <class F>
double Time(double& best, F&& f) {
    auto t = std::chrono::steady_clock::now();
    f();
    double s = Seconds(t);
    best = std::min(best, s);
    return s;
}

}  // namespace

int main() {
    auto dir = std::filesystem::temp_directory_path() / ("bench_compound." + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::string store = (dir / "store.ole").string(), plain = (dir / "plain.bin").string(),
                fields = (dir / "fields.bin").string();
    std::vector<unsigned char> bytes(1 << 20);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 131 + (i >> 9));

    // Each figure is the best of a few rounds, ours and the references alike; the first commit of the
    // process, which also pays for fresh memory, is reported on its own.
    constexpr int kRounds = 3;
    Figures best;
    double firstCommit = 0;
    std::uint64_t total = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::filesystem::remove(store);
        std::filesystem::remove(plain);
        std::filesystem::remove(fields);
        double c = Time(best.commit, [&] { total = WriteStore(store, bytes); });
        if (round == 0) firstCommit = c;
        Time(best.plainWrite, [&] { PlainWrite(plain, bytes, total); });
        Time(best.fieldsWrite, [&] { FieldsWrite(fields, bytes); });
        // All three files were just written, so every read comes from the page cache.
        std::uint64_t read = 0, plainBytes = 0, fieldBytes = 0;
        Time(best.read, [&] { read = ReadStore(store); });
        Time(best.plainRead, [&] { plainBytes = PlainRead(plain); });
        Time(best.fieldsRead, [&] { fieldBytes = FieldsRead(fields); });
        if (read != total || plainBytes != total || fieldBytes != total) {
            std::fprintf(stderr, "bench_compound: read %llu of %llu bytes\n",
                         static_cast<unsigned long long>(read), static_cast<unsigned long long>(total));
            return 1;
        }
    }

    std::printf("bench compound_payload %.1f MB\n", total / 1e6);
    std::printf("bench compound_file_size %.1f MB\n", std::filesystem::file_size(store) / 1e6);
    std::printf("bench compound_create_commit %.3f s\n", best.commit);
    std::printf("bench compound_create_commit_first %.3f s\n", firstCommit);
    std::printf("bench compound_plain_write %.3f s\n", best.plainWrite);
    // Lower is better: create + commit over a plain sequential write of the same bytes; target <= 3.
    std::printf("bench compound_commit_vs_plain_write ratio %.2f\n", best.commit / best.plainWrite);
    std::printf("bench compound_open_enum_read %.3f s\n", best.read);
    std::printf("bench compound_plain_read %.3f s\n", best.plainRead);
    // Lower is better: open + enumerate + read everything over a plain sequential read; target <= 3.
    std::printf("bench compound_read_vs_plain_read ratio %.2f\n", best.read / best.plainRead);
    std::printf("bench compound_fields_write %.3f s\n", best.fieldsWrite);
    std::printf("bench compound_fields_read %.3f s\n", best.fieldsRead);
    // Lower is better; no target: against the same fields one by one through stdio.
    std::printf("bench compound_commit_vs_fields_write ratio %.2f\n", best.commit / best.fieldsWrite);
    std::printf("bench compound_read_vs_fields_read ratio %.2f\n", best.read / best.fieldsRead);

    if (std::getenv("TAVIK_BENCH_NO_OLEFILE")) {
        std::filesystem::remove_all(dir);
        return 0;
    }
    std::string cmd = "/usr/bin/python3 " + std::string(TAVIK_BENCH_DIR) + "/olefile_read.py " + store;
    if (FILE* p = ::popen(cmd.c_str(), "r")) {
        double secs = 0;
        unsigned long long bytesRead = 0;
        if (std::fscanf(p, "%lf %llu", &secs, &bytesRead) == 2 && bytesRead == total) {
            std::printf("bench olefile_open_enum_read %.3f s\n", secs);
            // Lower is better: our open + enumerate + read over olefile's on the same file; target < 1.
            std::printf("bench compound_read_vs_olefile ratio %.3f\n", best.read / secs);
        } else {
            std::printf("bench olefile_open_enum_read unavailable 0\n");
        }
        ::pclose(p);
    }
    std::filesystem::remove_all(dir);
    return 0;
}
