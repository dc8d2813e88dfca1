// tavik registry export KEY FILE | tavik registry import FILE: move settings to and from a Windows machine
// in the registry editor's text format.
#include <cctype>
#include <filesystem>
#include <string>

#include "accounts/CRegistryManager.h"
#include "host/Commands.h"
#include "platform/Registry.h"

namespace tavik::host {

namespace {

int Report(const Invocation& call, const std::string& what, LONG code,
           const std::string& why = RegGetLastMessage()) {
    return call.Fail(what + " (error " + std::to_string(code) + ")" + (why.empty() ? "" : ": " + why));
}

std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// "HKEY_CURRENT_USER\Software\..." (or HKCU, HKEY_CLASSES_ROOT, HKCR) into its root and the path below.
void SplitKey(const std::string& key, HKEY& root, std::string& path) {
    const size_t slash = key.find('\\');
    const std::string rootName = Upper(key.substr(0, slash));
    if (rootName == "HKEY_CURRENT_USER" || rootName == "HKCU")
        root = HKEY_CURRENT_USER;
    else if (rootName == "HKEY_CLASSES_ROOT" || rootName == "HKCR")
        root = HKEY_CLASSES_ROOT;
    else
        throw UsageError("KEY starts with HKEY_CURRENT_USER or HKEY_CLASSES_ROOT (or HKCU, HKCR), not '" +
                         key.substr(0, slash) + "'");
    path = slash == std::string::npos ? "" : key.substr(slash + 1);
    while (!path.empty() && path.back() == '\\') path.pop_back();
}

// The key is saved by the library's registry access. Its save never replaces a file (as on Windows) and its
// open creates a missing key, so the host looks before it opens and saves beside the file, then renames.
int Export(const Invocation& call) {
    const std::string& key = call.args.Positional(0);
    const std::string& file = call.args.Positional(1);
    HKEY root = nullptr;
    std::string path;
    SplitKey(key, root, path);
    HKEY probe = nullptr;
    if (LONG code = RegOpenKeyEx(root, path.c_str(), 0, KEY_READ, &probe); code != ERROR_SUCCESS)
        return code == ERROR_FILE_NOT_FOUND ? call.Fail("no key " + key)
                                            : Report(call, "cannot open " + key, code);
    RegCloseKey(probe);

    CRegistryManager registry;
    if (LONG code = registry.OpenRegistryKey(root, path.c_str(), nullptr); code != ERROR_SUCCESS)
        return Report(call, "cannot open " + key, code);
    std::string temp;
    LONG code = ERROR_ALREADY_EXISTS;
    for (int n = 0; n < 100 && code == ERROR_ALREADY_EXISTS; ++n) {
        temp = file + ".new" + (n ? std::to_string(n) : "");
        code = registry.SaveRegistryKey(temp.c_str());
    }
    const std::string why = RegGetLastMessage();  // before Close clears it
    registry.Close();
    if (code != ERROR_SUCCESS) return Report(call, "cannot write " + file, code, why);
    std::error_code error;
    std::filesystem::rename(temp, file, error);
    if (error) {
        std::filesystem::remove(temp, error);
        return call.Fail("cannot write " + file + ": " + error.message());
    }
    return 0;
}

// A registry editor's file names its keys itself and may delete keys and values: it is merged into the
// store where it says. The library's registry access only replaces one open key's whole content by a
// file saved from one key, which would drop every setting the file does not name.
int Import(const Invocation& call) {
    const std::string& file = call.args.Positional(0);
    if (LONG code = RegImportFile(file.c_str()); code != ERROR_SUCCESS)
        return Report(call, "cannot import " + file, code);
    if (LONG code = RegCloseStore(); code != ERROR_SUCCESS)
        return Report(call, "cannot save the store", code);
    return 0;
}

const char* const kStoreDetails =
    "The store is $TAVIK_REGISTRY, else $XDG_CONFIG_HOME/tavikmail/registry.db, else\n"
    "~/.config/tavikmail/registry.db.";

}  // namespace

const Command& RegistryCommand() {
    static const Command command{
        .name = "registry",
        .summary = "export a registry key to a .reg file, or import one",
        .details = kStoreDetails,
        .subcommands =
            {
                {
                    .name = "export",
                    .summary = "write KEY and everything below it to FILE, replacing the file",
                    .arguments = "KEY FILE",
                    .minArguments = 2,
                    .maxArguments = 2,
                    .details =
                        std::string("KEY is like HKEY_CURRENT_USER\\Software\\Brannick (also HKCU, "
                                    "HKEY_CLASSES_ROOT, "
                                    "HKCR).\nFILE is written as the registry editor writes it (UTF-16).\n") +
                        kStoreDetails,
                    .run = Export,
                },
                {
                    .name = "import",
                    .summary = "merge a registry editor (.reg) file into the store",
                    .arguments = "FILE",
                    .minArguments = 1,
                    .maxArguments = 1,
                    .details =
                        std::string("Every key and value of FILE is applied, deletions included, or at its "
                                    "first bad line\nnone of it.\n") +
                        kStoreDetails,
                    .run = Import,
                },
            },
    };
    return command;
}

}  // namespace tavik::host
