#include "platform/StringResources.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "platform/CString.h"

namespace {
struct Table {
    const AFX_STRING_RESOURCE* rows;
    size_t count;
};
std::mutex& tablesMutex() {
    static std::mutex m;
    return m;
}
std::vector<Table>& tables() {
    static std::vector<Table> t;
    return t;
}
}  // namespace

void AfxRegisterStringTable(const AFX_STRING_RESOURCE* table, size_t count) {
    std::lock_guard<std::mutex> lock(tablesMutex());
    auto& all = tables();
    if (std::any_of(all.begin(), all.end(), [&](const Table& t) { return t.rows == table; })) return;
    all.push_back({table, count});
}

void AfxUnregisterStringTable(const AFX_STRING_RESOURCE* table) {
    std::lock_guard<std::mutex> lock(tablesMutex());
    auto& all = tables();
    all.erase(std::remove_if(all.begin(), all.end(), [&](const Table& t) { return t.rows == table; }),
              all.end());
}

const char* AfxFindStringResource(UINT id) {
    std::lock_guard<std::mutex> lock(tablesMutex());
    auto& all = tables();
    for (auto t = all.rbegin(); t != all.rend(); ++t) {
        for (size_t i = 0; i < t->count; ++i) {
            if (t->rows[i].id == id) return t->rows[i].text;
        }
    }
    return nullptr;
}

BOOL CString::LoadString(UINT id) {
    const char* text = AfxFindStringResource(id);
    if (text == nullptr) {
        Empty();
        return FALSE;
    }
    *this = text;
    return TRUE;
}
