// A second process for the registry tests: writes, deletes or holds keys of a store given on the
// command line, and reports on stdout when it has reached the point the test waits for.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Registry.h"

namespace {

int Fail(const char* what, LONG code) {
    std::fprintf(stderr, "registry child: %s failed with %ld: %s\n", what, static_cast<long>(code),
                 RegGetLastMessage().c_str());
    return 1;
}

HKEY Open(const char* path) {
    HKEY key = nullptr;
    LONG code =
        RegCreateKeyEx(HKEY_CURRENT_USER, path, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    if (code != ERROR_SUCCESS) Fail("create", code);
    return key;
}

void Report(const char* line) {
    ssize_t ignored = ::write(1, line, std::strlen(line));
    (void)ignored;
}

[[noreturn]] void Hang() {
    for (;;) ::pause();
}

}  // namespace

// write STORE KEY PREFIX COUNT BATCH [hang] | hold STORE KEY | delete STORE KEY | import STORE FILE
int main(int argc, char** argv) {
    if (argc < 4) return 2;
    std::string mode = argv[1];
    RegSetStorePath(argv[2]);
    const char* path = argv[3];
    if (mode == "write" && (argc == 7 || argc == 8)) {
        int count = std::atoi(argv[5]), batch = std::atoi(argv[6]);
        for (int i = 0; i < count;) {
            HKEY key = Open(path);
            if (!key) return 1;
            for (int end = std::min(count, i + batch); i < end; ++i) {
                std::string name = std::string(argv[4]) + std::to_string(i);
                DWORD value = static_cast<DWORD>(i);
                if (LONG c =
                        RegSetValueEx(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), 4))
                    return Fail("write", c);
            }
            if (LONG c = RegCloseKey(key)) return Fail("close", c);
        }
        if (argc == 7) return 0;
        Report("closed\n");
        Hang();
    }
    if (mode == "hold" && argc == 4) {
        HKEY key = Open(path);
        if (!key) return 1;
        if (LONG c = RegSetValueEx(key, "Held", 0, REG_SZ, reinterpret_cast<const BYTE*>("yes"), 4))
            return Fail("write", c);
        Report("written\n");
        Hang();
    }
    if (mode == "import" && argc == 4) {
        if (LONG c = RegImportFile(path)) return Fail("import", c);
        if (LONG c = RegCloseStore()) return Fail("close", c);
        return 0;
    }
    if (mode == "delete" && argc == 4) {
        if (LONG c = RegDeleteKey(HKEY_CURRENT_USER, path)) return Fail("delete", c);
        return 0;
    }
    return 2;
}
