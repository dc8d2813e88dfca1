// tavik registry export KEY FILE | tavik registry import FILE: move settings to and from a Windows
// machine in the registry editor's text format.
#include <cstdio>

#include "host/Commands.h"
#include "platform/Registry.h"

namespace {

int Usage() {
    std::fprintf(stderr,
                 "usage: tavik registry export KEY FILE   (KEY like HKEY_CURRENT_USER\\Software\\Brannick)\n"
                 "       tavik registry import FILE\n"
                 "The store is $TAVIK_REGISTRY, else $XDG_CONFIG_HOME/tavikmail/registry.db, else\n"
                 "~/.config/tavikmail/registry.db.\n");
    return 2;
}

int Report(const char* what, LONG code) {
    std::string why = RegGetLastMessage();
    std::fprintf(stderr, "tavik registry %s: failed (error %ld)%s%s\n", what, static_cast<long>(code),
                 why.empty() ? "" : ": ", why.c_str());
    return 1;
}

}  // namespace

int tavik::host::RunRegistry(const Args& args) {
    if (args.size() == 3 && args[0] == "export") {
        if (LONG code = RegExportKey(args[1].c_str(), args[2].c_str()); code != ERROR_SUCCESS)
            return Report("export", code);
        return 0;
    }
    if (args.size() == 2 && args[0] == "import") {
        if (LONG code = RegImportFile(args[1].c_str()); code != ERROR_SUCCESS) return Report("import", code);
        return RegCloseStore() == ERROR_SUCCESS ? 0 : Report("import", ERROR_CANTWRITE);
    }
    return Usage();
}
