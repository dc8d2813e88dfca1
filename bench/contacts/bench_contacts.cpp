// Saving 5,000 contacts with every field filled into a contact storage and committing the file, then
// reopening it and enumerating every entry back, against writing and reading the same bytes plainly with
// CFile in the same run. Times are in milliseconds (best of three runs, wall clock and CPU time); ratios
// are ours / plain, so lower is better; the target is 3 for both.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "contacts/CAddressEntry.h"
#include "library/LibraryMain.h"
#include "messages/CStorageManager.h"
#include "platform/CFile.h"
#include "platform/Clock.h"
#include "platform/Kernel.h"

namespace fs = std::filesystem;

namespace {

constexpr int kContacts = 5000;
constexpr int kRuns = 3;

double msSince(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

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
    std::printf("bench %s_5000 %.1f ms\n", name, ours.wallMs);
    std::printf("bench %s_plain_reference %.1f ms\n", name, plain.wallMs);
    std::printf("bench %s ratio %.2f\n", name, ours.wallMs / plain.wallMs);
    std::printf("bench %s_cpu_5000 %.1f ms\n", name, ours.cpuMs);
    std::printf("bench %s_cpu_plain_reference %.1f ms\n", name, plain.cpuMs);
    std::printf("bench %s_cpu ratio %.2f\n", name, ours.cpuMs / plain.cpuMs);
}

CString text(const char* field, int i) {
    CString t;
    t.Format("%s of contact number %d", field, i);
    return t;
}

// Every field filled, texts of a realistic length.
std::unique_ptr<CAddressEntry> makeContact(int i) {
    auto e = std::make_unique<CAddressEntry>();
    e->SetCompany(text("Company", i));
    e->SetJobTitle(text("Job title", i));
    e->SetFileAs(text("File as", i));
    e->SetUrl(text("https://www.example.org/people/", i));
    e->SetComments(text("Met at the conference; prefers mail in the morning. Comments", i));
    for (int k = 0; k < PHONETYPE_COUNT; ++k)
        e->SetPhoneNumber(PHONETYPE(k), text("+1 555 01", k * 10000 + i));
    for (int k = 0; k < EMAILTYPE_COUNT; ++k)
        e->SetEmailAddress(EMAILTYPE(k), text("person.name@example.org", k * 10000 + i));
    for (int a = 0; a < ADDRESSTYPE_COUNT; ++a)
        e->SetMailingAddress(ADDRESSTYPE(a),
                             CAddressData(text("1234 Long Street Name", i), text("City", a), text("State", a),
                                          text("ZIP", i), text("Country", a)));
    e->SetNameData(CNameData("Dr", text("First", i), text("Middle", i), text("Last", i), "Jr"));
    return e;
}

// The bytes each contact stores: its lengths record, its text and its id.
struct Plain {
    std::string lengths, text, id;
};

Plain plainOf(const CAddressEntry& e) {
    CAddressEntry::_tagSTR_ADDRESSENTRY lengths;
    e.BuildStringDataLengths(lengths);
    return {std::string(reinterpret_cast<const char*>(&lengths), sizeof lengths),
            std::string(e.BuildMailBoxStringData()), std::to_string(e.GetProfileID())};
}

// Contacts are made by a person, never two in one millisecond. Every run makes the same book.
std::vector<std::unique_ptr<CAddressEntry>> makeBook() {
    ScopedClockPin clock(1000);
    std::vector<std::unique_ptr<CAddressEntry>> book;
    for (int i = 0; i < kContacts; ++i) {
        clock.AdvanceTicks(1);
        book.push_back(makeContact(i));
    }
    return book;
}

int saveBook(const std::string& path, std::vector<std::unique_ptr<CAddressEntry>>& book) {
    CStorageManager file(path.c_str(), true);
    for (auto& e : book)
        if (!e->SaveAddress(file.m_pStorage)) return 1;
    file.Close();
    if (FAILED(file.m_hResult)) {
        std::fprintf(stderr, "commit failed: 0x%08x\n", static_cast<unsigned>(file.m_hResult));
        return 1;
    }
    return 0;
}

// Opens the file and enumerates every contact; nothing changed, so the file is released without a commit.
void loadBook(const std::string& path, std::list<CAddressEntry*>& list) {
    CStorageManager file(path.c_str(), true);
    CAddressEntry::EnumStorage(file.m_pStorage, list, nullptr);
    file.m_pStorage->Revert();
}

// The loaded book holds every contact, whole; the list is emptied.
int checkBook(std::list<CAddressEntry*>& list, size_t payload) {
    std::set<int> ids;
    size_t bytes = 0;
    for (CAddressEntry* e : list) {
        ids.insert(e->GetProfileID());
        CAddressEntry::_tagSTR_ADDRESSENTRY lengths;
        bytes += sizeof lengths + static_cast<size_t>(e->BuildMailBoxStringData().GetLength()) +
                 std::to_string(e->GetProfileID()).size();
        delete e;
    }
    list.clear();
    if (ids.size() != static_cast<size_t>(kContacts) || bytes != payload) {
        std::fprintf(stderr, "loaded %zu distinct contacts, %zu of %zu bytes\n", ids.size(), bytes, payload);
        return 1;
    }
    return 0;
}

// The same bytes, plainly: one write per stream of each contact, then a flush to the disk as the commit does.
void writePlain(const std::string& path, const std::vector<Plain>& book) {
    CFile plain(path.c_str(), CFile::modeCreate | CFile::modeWrite);
    for (const Plain& p : book) {
        plain.Write(p.lengths.data(), static_cast<UINT>(p.lengths.size()));
        plain.Write(p.text.data(), static_cast<UINT>(p.text.size()));
        plain.Write(p.id.data(), static_cast<UINT>(p.id.size()));
    }
    plain.Flush();
    plain.Close();
}

size_t readPlain(const std::string& path, const std::vector<Plain>& book) {
    CFile plain(path.c_str(), CFile::modeRead);
    std::vector<char> buffer(4096);
    size_t total = 0;
    for (const Plain& p : book)
        for (size_t n : {p.lengths.size(), p.text.size(), p.id.size()})
            total += plain.Read(buffer.data(), static_cast<UINT>(n));
    return total;
}

}  // namespace

int main() {
    int status = 0;
    TavikLibraryAttach();
    fs::path dir =
        fs::temp_directory_path() / ("tavik-bench-contacts-" + std::to_string(GetCurrentProcessId()));
    fs::create_directories(dir);
    std::string storePath = (dir / "contacts.tvs").string();
    std::string plainPath = (dir / "plain.bin").string();

    std::vector<std::unique_ptr<CAddressEntry>> book;
    std::vector<Plain> plainBook;
    size_t payload = 0;
    Timing save, load, plainWrite, plainRead;
    // Making the contacts and releasing the loaded ones are not part of the figures.
    for (int run = 0; run < kRuns && status == 0; ++run) {
        fs::remove(storePath);
        book = makeBook();
        save.Take([&] { status |= saveBook(storePath, book); });
        if (plainBook.empty()) {
            for (auto& e : book) plainBook.push_back(plainOf(*e));
            for (const Plain& p : plainBook) payload += p.lengths.size() + p.text.size() + p.id.size();
        }
        std::list<CAddressEntry*> loaded;
        load.Take([&] { loadBook(storePath, loaded); });
        status |= checkBook(loaded, payload);
        plainWrite.Take([&] { writePlain(plainPath, plainBook); });
        plainRead.Take([&] {
            size_t total = readPlain(plainPath, plainBook);
            if (total != payload) {
                std::fprintf(stderr, "plain read %zu of %zu bytes\n", total, payload);
                status = 1;
            }
        });
    }

    std::printf("bench contacts_payload %.2f MB\n", static_cast<double>(payload) / (1024.0 * 1024.0));
    std::printf("bench contacts_file_size %.2f MB\n",
                static_cast<double>(fs::file_size(storePath)) / (1024.0 * 1024.0));
    report("contacts_save", save, plainWrite);
    report("contacts_load", load, plainRead);

    fs::remove_all(dir);
    TavikLibraryDetach();
    return status;
}
