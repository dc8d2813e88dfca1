// Saving 10,000 message records with 4 KB bodies into one message file and committing it, then reopening
// it and loading every record with EnumStorage (progress going to a window on its own thread), against
// writing and reading the same bytes plainly with CFile in the same run. Times are in milliseconds (best
// of three runs, wall clock and CPU time of all threads);
// ratios are ours / plain, so lower is better; the target is 4 for both.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "library/LibraryMain.h"
#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/CFile.h"
#include "platform/Clock.h"
#include "platform/Kernel.h"
#include "platform/WindowMessages.h"

namespace fs = std::filesystem;

namespace {

constexpr int kRecords = 10000;
constexpr int kBodySize = 4096;
constexpr UINT kRecordMessage = WM_USER + 2;
constexpr UINT kPercentMessage = WM_USER + 4;

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

std::string headerFor(int i) {
    char text[256];
    std::snprintf(
        text, sizeof text,
        "From: Sender %d <sender%d@example.org>\r\nTo: me@example.org\r\nSubject: Message number %d\r\n"
        "Message-ID: <%d@bench.example.org>\r\nDate: Mon, 2 Mar 2026 10:00:00 +0000\r\n",
        i, i, i, i);
    return text;
}

std::string bodyFor(int i) {
    std::string body(kBodySize, 'x');
    for (int k = 0; k < kBodySize; ++k) body[k] = static_cast<char>('a' + (i + k) % 26);
    return body;
}

// The host's window: counts the notifications on its own thread, as a user interface would.
struct ProgressWindow {
    std::atomic<HWND> hwnd{nullptr};
    std::atomic<long> records{0};
    std::atomic<long> percents{0};
    std::atomic<long> lastPercent{0};
    std::thread thread;

    static LRESULT proc(HWND h, UINT message, WPARAM, LPARAM lParam) {
        auto self = reinterpret_cast<ProgressWindow*>(GetWindowLongPtr(h, GWLP_USERDATA));
        if (message == kRecordMessage) self->records++;
        if (message == kPercentMessage) {
            self->percents++;
            self->lastPercent = static_cast<long>(lParam);
        }
        if (message == WM_CLOSE) PostQuitMessage(0);
        return 0;
    }
    void start() {
        thread = std::thread([this] {
            HWND h = CreateMessageWindow(&ProgressWindow::proc, this);
            hwnd = h;
            MSG msg;
            while (GetMessage(&msg, nullptr, 0, 0) > 0) DispatchMessage(&msg);
            DestroyWindow(h);
        });
        while (!hwnd.load()) std::this_thread::yield();
    }
    void stop() {
        PostMessage(hwnd, WM_CLOSE, 0, 0);
        thread.join();
    }
};

constexpr int kRuns = 3;

struct Timing {
    double wallMs = 1e300;
    double cpuMs = 1e300;
    template <class F>
    void Take(F f) {
        std::clock_t c0 = std::clock();
        auto t0 = std::chrono::steady_clock::now();
        f();
        wallMs = std::min(wallMs, msSince(t0));
        cpuMs = std::min(cpuMs, 1000.0 * static_cast<double>(std::clock() - c0) / CLOCKS_PER_SEC);
    }
};

void report(const char* name, const Timing& ours, const Timing& plain) {
    std::printf("bench %s_10000x4k %.1f ms\n", name, ours.wallMs);
    std::printf("bench %s_plain_reference %.1f ms\n", name, plain.wallMs);
    std::printf("bench %s ratio %.2f\n", name, ours.wallMs / plain.wallMs);
    std::printf("bench %s_cpu_10000x4k %.1f ms\n", name, ours.cpuMs);
    std::printf("bench %s_cpu_plain_reference %.1f ms\n", name, plain.cpuMs);
    std::printf("bench %s_cpu ratio %.2f\n", name, ours.cpuMs / plain.cpuMs);
}

// Records take their storage names from the tick count; fetched mail arrives spread over time, so each
// record here is made a millisecond after the last. The commit (closing the file) is part of the save.
int saveStore(const std::string& path, const std::vector<std::string>& headers,
              const std::vector<std::string>& bodies) {
    static DWORD ticks = 1000;
    ScopedClockPin clock(ticks);
    CStorageManager file(path.c_str(), true);
    for (int i = 0; i < kRecords; ++i) {
        clock.AdvanceTicks(1);
        CMessageList record(file.m_pStorage);
        record.SetData(headers[i].c_str(), static_cast<DWORD>(i + 1), kBodySize, MsgReceived);
        CString body(bodies[i].data(), kBodySize);
        record.SetBody(body);
    }
    ticks += kRecords;
    file.Close();
    if (FAILED(file.m_hResult)) {
        std::fprintf(stderr, "commit failed: 0x%08x\n", static_cast<unsigned>(file.m_hResult));
        return 1;
    }
    return 0;
}

// Opens the file and loads every record with its progress messages; the body is read when the user opens
// a message, so the load also fetches every body to compare like with like.
int loadStore(const std::string& path, bool withProgress) {
    ProgressWindow window;
    window.start();
    int status = 0;
    {
        CStorageManager file(path.c_str(), true);
        CMessageList::_tagLoadProgressData progress{window.hwnd,     WM_USER + 1, kRecordMessage, WM_USER + 3,
                                                    kPercentMessage, WM_USER + 5, kRecords};
        std::list<CMessageList*> list;
        CMessageList::EnumStorage(file.m_pStorage, list, nullptr, withProgress ? &progress : nullptr);
        size_t bodyBytes = 0;
        for (CMessageList* m : list) {
            CString body;
            m->GetBody(body);
            bodyBytes += static_cast<size_t>(body.GetLength());
            delete m;
        }
        if (list.size() != static_cast<size_t>(kRecords) ||
            bodyBytes != static_cast<size_t>(kRecords) * kBodySize) {
            std::fprintf(stderr, "loaded %zu records, %zu body bytes\n", list.size(), bodyBytes);
            status = 1;
        }
        // Nothing changed: the file is released without a commit.
        file.m_pStorage->Revert();
    }
    window.stop();
    if (withProgress &&
        (window.records != kRecords || window.percents != kRecords || window.lastPercent != 100)) {
        std::fprintf(stderr, "notifications: %ld records, %ld percentages, last %ld%%\n",
                     window.records.load(), window.percents.load(), window.lastPercent.load());
        status = 1;
    }
    return status;
}

// The same bytes, plainly: one write per record part, then a flush to the disk as the commit does.
void writePlain(const std::string& path, const std::vector<std::string>& headers,
                const std::vector<std::string>& bodies) {
    CFile plain(path.c_str(), CFile::modeCreate | CFile::modeWrite);
    unsigned char numeric[32] = {};
    for (int i = 0; i < kRecords; ++i) {
        plain.Write(headers[i].data(), static_cast<UINT>(headers[i].size()));
        plain.Write(numeric, sizeof numeric);
        plain.Write("inbox<00000000000000000000000>", 30);
        plain.Write(bodies[i].data(), kBodySize);
    }
    plain.Flush();
    plain.Close();
}

size_t readPlain(const std::string& path, const std::vector<std::string>& headers) {
    CFile plain(path.c_str(), CFile::modeRead);
    std::vector<char> buffer(kBodySize + 512);
    size_t total = 0;
    for (int i = 0; i < kRecords; ++i) {
        total += plain.Read(buffer.data(), static_cast<UINT>(headers[i].size()));
        total += plain.Read(buffer.data(), 32);
        total += plain.Read(buffer.data(), 30);
        total += plain.Read(buffer.data(), kBodySize);
    }
    return total;
}

}  // namespace

int main() {
    int status = 0;
    TavikLibraryAttach();
    fs::path dir = fs::temp_directory_path() / ("tavik-bench-store-" + std::to_string(GetCurrentProcessId()));
    fs::create_directories(dir);
    std::string storePath = (dir / "mail.tvd").string();
    std::string plainPath = (dir / "plain.bin").string();

    std::vector<std::string> headers, bodies;
    for (int i = 0; i < kRecords; ++i) {
        headers.push_back(headerFor(i));
        bodies.push_back(bodyFor(i));
    }
    size_t payload = 0;
    for (int i = 0; i < kRecords; ++i) payload += headers[i].size() + bodies[i].size() + 32 + 30;

    // Each phase runs three times and keeps its best wall time and its best CPU time (all threads), since
    // the machine is shared and a single run measures the neighbours as much as the code.
    Timing save, load, loadQuiet, plainWrite, plainRead;
    for (int run = 0; run < kRuns && status == 0; ++run) {
        fs::remove(storePath);
        save.Take([&] { status |= saveStore(storePath, headers, bodies); });
        load.Take([&] { status |= loadStore(storePath, true); });
        loadQuiet.Take([&] { status |= loadStore(storePath, false); });
        plainWrite.Take([&] { writePlain(plainPath, headers, bodies); });
        plainRead.Take([&] {
            size_t total = readPlain(plainPath, headers);
            if (total != payload) {
                std::fprintf(stderr, "plain read %zu of %zu bytes\n", total, payload);
                status = 1;
            }
        });
    }

    std::printf("bench store_file_size %.1f MB\n",
                static_cast<double>(fs::file_size(storePath)) / (1024.0 * 1024.0));
    report("store_save", save, plainWrite);
    report("store_load", load, plainRead);
    // The same load without a progress record: the difference is what the 10,000 sent and 10,000 posted
    // notifications to the window's thread cost.
    report("store_load_without_progress", loadQuiet, plainRead);

    fs::remove_all(dir);
    TavikLibraryDetach();
    return status;
}
