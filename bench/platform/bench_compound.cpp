// Compound files at mail-store scale: 10,000 sub-storages of five streams (about 100 MB), written and
// committed, then opened, enumerated and read whole; compared with plain stdio file I/O of the same fields
// and with python3-olefile reading the same file, all in this run.
#include <fcntl.h>
#include <unistd.h>

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
constexpr Part kParts[] = {{"Identification", 40}, {"Folder", 12}, {"Numeric Data", 32}, {"Header", 1900}, {"Body", 8000}};

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

// The reference is what a program without compound files would do with the same data: the same fields
// of the same messages written one by one through stdio (which hands the kernel 4 KB pieces) into one
// flat file, flushed and fsynced once; and read back field by field the same way.
void PlainWrite(const std::string& path, const std::vector<unsigned char>& bytes) {
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

std::uint64_t PlainRead(const std::string& path) {
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

// For scale, the floor under any format: the same number of bytes in 1 MB writes and 64 KB reads.
void BulkWrite(const std::string& path, const std::vector<unsigned char>& bytes, std::uint64_t total) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    for (std::uint64_t done = 0; done < total;) {
        std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), total - done));
        if (::write(fd, bytes.data(), n) != static_cast<ssize_t>(n)) std::exit(1);
        done += n;
    }
    ::fsync(fd);
    ::close(fd);
}

std::uint64_t BulkRead(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY);
    std::vector<unsigned char> buf(1 << 16);
    std::uint64_t total = 0;
    ssize_t n;
    while ((n = ::read(fd, buf.data(), buf.size())) > 0) total += static_cast<std::uint64_t>(n);
    ::close(fd);
    return total;
}

}  // namespace

int main() {
    auto dir = std::filesystem::temp_directory_path() / ("bench_compound." + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::string store = (dir / "store.ole").string(), plain = (dir / "plain.bin").string();
    std::vector<unsigned char> bytes(1 << 20);
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 131 + (i >> 9));

    auto t = std::chrono::steady_clock::now();
    std::uint64_t total = WriteStore(store, bytes);
    double commit = Seconds(t);
    t = std::chrono::steady_clock::now();
    PlainWrite(plain, bytes);
    double plainWrite = Seconds(t);

    // Both files were just written, so both reads come from the page cache.
    t = std::chrono::steady_clock::now();
    std::uint64_t read = ReadStore(store);
    double readAll = Seconds(t);
    t = std::chrono::steady_clock::now();
    std::uint64_t plainBytes = PlainRead(plain);
    double plainRead = Seconds(t);
    std::string bulk = (dir / "bulk.bin").string();
    t = std::chrono::steady_clock::now();
    BulkWrite(bulk, bytes, total);
    double bulkWrite = Seconds(t);
    t = std::chrono::steady_clock::now();
    BulkRead(bulk);
    double bulkRead = Seconds(t);
    if (read != total || plainBytes != total) {
        std::fprintf(stderr, "bench_compound: read %llu of %llu bytes\n", static_cast<unsigned long long>(read),
                     static_cast<unsigned long long>(total));
        return 1;
    }

    std::printf("bench compound_payload %.1f MB\n", total / 1e6);
    std::printf("bench compound_file_size %.1f MB\n", std::filesystem::file_size(store) / 1e6);
    std::printf("bench compound_create_commit %.3f s\n", commit);
    std::printf("bench compound_plain_write %.3f s\n", plainWrite);
    // Lower is better: our create + commit over stdio writes (and fsync) of the same fields; target <= 3.
    std::printf("bench compound_commit_vs_plain_write ratio %.2f\n", commit / plainWrite);
    std::printf("bench compound_open_enum_read %.3f s\n", readAll);
    std::printf("bench compound_plain_read %.3f s\n", plainRead);
    // Lower is better: open + enumerate + read everything over stdio reads of the same fields; target <= 3.
    std::printf("bench compound_read_vs_plain_read ratio %.2f\n", readAll / plainRead);
    std::printf("bench compound_bulk_write %.3f s\n", bulkWrite);
    std::printf("bench compound_bulk_read %.3f s\n", bulkRead);
    // Lower is better; no target: how far we are from moving the bytes in the largest pieces possible.
    std::printf("bench compound_commit_vs_bulk_write ratio %.2f\n", commit / bulkWrite);
    std::printf("bench compound_read_vs_bulk_read ratio %.2f\n", readAll / bulkRead);

    if (std::getenv("TAVIK_BENCH_NO_OLEFILE")) { std::filesystem::remove_all(dir); return 0; }
    std::string cmd = "/usr/bin/python3 " + std::string(TAVIK_BENCH_DIR) + "/olefile_read.py " + store;
    if (FILE* p = ::popen(cmd.c_str(), "r")) {
        double secs = 0;
        unsigned long long bytesRead = 0;
        if (std::fscanf(p, "%lf %llu", &secs, &bytesRead) == 2 && bytesRead == total) {
            std::printf("bench olefile_open_enum_read %.3f s\n", secs);
            // Lower is better: our open + enumerate + read over olefile's on the same file; target < 1.
            std::printf("bench compound_read_vs_olefile ratio %.3f\n", readAll / secs);
        } else {
            std::printf("bench olefile_open_enum_read unavailable 0\n");
        }
        ::pclose(p);
    }
    std::filesystem::remove_all(dir);
    return 0;
}
