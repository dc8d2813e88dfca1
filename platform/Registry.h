// The Windows registry calls the library uses, over one SQLite store per user.
//
// Behaviour matched on purpose where callers depend on it: key and value names compare ignoring case
// (ASCII letters) and keep the spelling they were created with; values enumerate in creation order and
// an overwrite keeps its place; sub-keys enumerate in the hive's order (names compared upper-cased); a
// key that still has sub-keys cannot be deleted (ERROR_ACCESS_DENIED); an empty sub-key name given to
// RegDeleteKey deletes the key of the handle itself; operations through a handle whose key was deleted
// give ERROR_KEY_DELETED.
//
// Store and durability: every handle of the process sees a write at once. Writes are committed, and so
// reach other processes and survive a crash of this one, at RegCloseKey, at RegFlushKey, and at the
// latest a fraction of a second after the last write; RegFlushKey also forces them to the disk. Two
// processes may share one store; a process that finds it locked waits (a few seconds) before failing.
// A store file that is damaged or not ours is never touched: every call then fails with
// ERROR_REGISTRY_CORRUPT (damaged) or ERROR_BADDB (foreign), and RegGetLastMessage says which file and why.
//
// The ANSI forms are the only forms: names and string data are the library's single-byte text.
#pragma once

#include <string>

#include "platform/WinTypes.h"

struct HKEY__;
using HKEY = HKEY__*;
using PHKEY = HKEY*;
using REGSAM = DWORD;

#define HKEY_CLASSES_ROOT ((HKEY)(std::uintptr_t)0x80000000u)
#define HKEY_CURRENT_USER ((HKEY)(std::uintptr_t)0x80000001u)
// Not modelled: every call on it gives ERROR_CALL_NOT_IMPLEMENTED.
#define HKEY_LOCAL_MACHINE ((HKEY)(std::uintptr_t)0x80000002u)
#define HKEY_USERS ((HKEY)(std::uintptr_t)0x80000003u)

// Value types.
constexpr DWORD REG_NONE = 0;
constexpr DWORD REG_SZ = 1;
constexpr DWORD REG_EXPAND_SZ = 2;
constexpr DWORD REG_BINARY = 3;
constexpr DWORD REG_DWORD = 4;
constexpr DWORD REG_DWORD_LITTLE_ENDIAN = 4;
constexpr DWORD REG_DWORD_BIG_ENDIAN = 5;
constexpr DWORD REG_LINK = 6;
constexpr DWORD REG_MULTI_SZ = 7;
constexpr DWORD REG_QWORD = 11;

// Access rights; a handle refuses what it was not opened for (ERROR_ACCESS_DENIED), as Windows does.
constexpr REGSAM DELETE = 0x00010000;
constexpr REGSAM READ_CONTROL = 0x00020000;
constexpr REGSAM SYNCHRONIZE = 0x00100000;
constexpr REGSAM STANDARD_RIGHTS_READ = READ_CONTROL;
constexpr REGSAM STANDARD_RIGHTS_WRITE = READ_CONTROL;
constexpr REGSAM STANDARD_RIGHTS_ALL = 0x001F0000;
constexpr REGSAM KEY_QUERY_VALUE = 0x0001;
constexpr REGSAM KEY_SET_VALUE = 0x0002;
constexpr REGSAM KEY_CREATE_SUB_KEY = 0x0004;
constexpr REGSAM KEY_ENUMERATE_SUB_KEYS = 0x0008;
constexpr REGSAM KEY_NOTIFY = 0x0010;
constexpr REGSAM KEY_CREATE_LINK = 0x0020;
constexpr REGSAM KEY_WOW64_64KEY = 0x0100;
constexpr REGSAM KEY_WOW64_32KEY = 0x0200;
constexpr REGSAM KEY_READ =
    (STANDARD_RIGHTS_READ | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY) & ~SYNCHRONIZE;
constexpr REGSAM KEY_WRITE = (STANDARD_RIGHTS_WRITE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY) & ~SYNCHRONIZE;
constexpr REGSAM KEY_EXECUTE = KEY_READ;
constexpr REGSAM KEY_ALL_ACCESS =
    (STANDARD_RIGHTS_ALL | KEY_QUERY_VALUE | KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_ENUMERATE_SUB_KEYS |
     KEY_NOTIFY | KEY_CREATE_LINK) &
    ~SYNCHRONIZE;

// RegCreateKeyEx options and dispositions. Volatile keys are stored like the others.
constexpr DWORD REG_OPTION_RESERVED = 0x0000;
constexpr DWORD REG_OPTION_NON_VOLATILE = 0x0000;
constexpr DWORD REG_OPTION_VOLATILE = 0x0001;
constexpr DWORD REG_OPTION_CREATE_LINK = 0x0002;
constexpr DWORD REG_OPTION_BACKUP_RESTORE = 0x0004;
constexpr DWORD REG_OPTION_OPEN_LINK = 0x0008;
constexpr DWORD REG_CREATED_NEW_KEY = 1;
constexpr DWORD REG_OPENED_EXISTING_KEY = 2;

// RegRestoreKey flags; both are accepted and the restore always replaces the key's content.
constexpr DWORD REG_WHOLE_HIVE_VOLATILE = 0x0001;
constexpr DWORD REG_REFRESH_HIVE = 0x0002;
constexpr DWORD REG_NO_LAZY_FLUSH = 0x0004;
constexpr DWORD REG_FORCE_RESTORE = 0x0008;

// Creates the key and any missing parents, or opens it. *lpdwDisposition (when given) tells which. A
// name with an empty part ("a\\\\b", "\\a") gives ERROR_BAD_PATHNAME; on failure *phkResult is null.
LONG RegCreateKeyEx(HKEY hKey, LPCSTR lpSubKey, DWORD Reserved, LPSTR lpClass, DWORD dwOptions,
                    REGSAM samDesired, const LPSECURITY_ATTRIBUTES lpSecurityAttributes, PHKEY phkResult,
                    LPDWORD lpdwDisposition);
// ERROR_FILE_NOT_FOUND when the key does not exist; a null or empty name opens the key of hKey again.
LONG RegOpenKeyEx(HKEY hKey, LPCSTR lpSubKey, DWORD ulOptions, REGSAM samDesired, PHKEY phkResult);
// Commits what was written so far. Closing a root handle is harmless.
LONG RegCloseKey(HKEY hKey);

// lpData null: only the size. A buffer that is too small gives ERROR_MORE_DATA with the needed size in
// *lpcbData and leaves the buffer alone. A null or empty name is the key's default value.
LONG RegQueryValueEx(HKEY hKey, LPCSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData,
                     LPDWORD lpcbData);
// Stores cbData bytes as given (string data keep whatever terminator the caller counted).
LONG RegSetValueEx(HKEY hKey, LPCSTR lpValueName, DWORD Reserved, DWORD dwType, const BYTE* lpData,
                   DWORD cbData);
LONG RegDeleteValue(HKEY hKey, LPCSTR lpValueName);

// Sub-key dwIndex in the hive's order; ERROR_NO_MORE_ITEMS past the end; a name buffer (counted in
// characters, terminator included) that is too small gives ERROR_MORE_DATA and leaves the count alone.
LONG RegEnumKeyEx(HKEY hKey, DWORD dwIndex, LPSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                  LPSTR lpClass, LPDWORD lpcchClass, PFILETIME lpftLastWriteTime);
// Value dwIndex in creation order; ERROR_NO_MORE_ITEMS past the end; ERROR_MORE_DATA when the name or the
// data does not fit (the needed data size then in *lpcbData).
LONG RegEnumValue(HKEY hKey, DWORD dwIndex, LPSTR lpValueName, LPDWORD lpcchValueName, LPDWORD lpReserved,
                  LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData);
// Counts and longest lengths (names without terminator); the class and security figures are 0.
LONG RegQueryInfoKey(HKEY hKey, LPSTR lpClass, LPDWORD lpcchClass, LPDWORD lpReserved, LPDWORD lpcSubKeys,
                     LPDWORD lpcbMaxSubKeyLen, LPDWORD lpcbMaxClassLen, LPDWORD lpcValues,
                     LPDWORD lpcbMaxValueNameLen, LPDWORD lpcbMaxValueLen, LPDWORD lpcbSecurityDescriptor,
                     PFILETIME lpftLastWriteTime);

// Deletes a key without sub-keys (ERROR_ACCESS_DENIED otherwise) together with its values. A null or
// empty name deletes the key of hKey itself, which then needs DELETE access.
LONG RegDeleteKey(HKEY hKey, LPCSTR lpSubKey);
// Commits and forces the store to the disk.
LONG RegFlushKey(HKEY hKey);

// Writes the key and everything below it to a new file in the registry editor's text format
// ("Windows Registry Editor Version 5.00", UTF-16 with a byte-order mark, as Windows writes it).
// ERROR_ALREADY_EXISTS when the file exists.
LONG RegSaveKey(HKEY hKey, LPCSTR lpFile, const LPSECURITY_ATTRIBUTES lpSecurityAttributes);
// Replaces the key's values and sub-keys by a file written by RegSaveKey (its first key becomes hKey's
// key, wherever it was saved from). A malformed file gives ERROR_INVALID_DATA and changes nothing;
// RegGetLastMessage names the line.
LONG RegRestoreKey(HKEY hKey, LPCSTR lpFile, DWORD dwFlags);

// ---- Beyond Windows: the store itself ----

// Uses the store file at path from now on (null: back to the default, which is $TAVIK_REGISTRY, else
// $XDG_CONFIG_HOME/tavikmail/registry.db, else ~/.config/tavikmail/registry.db). What was written to the
// previous store is committed first; handles opened on it become invalid (ERROR_INVALID_HANDLE).
// The file is opened at the next registry call; a new file is created 0600 in a 0700 directory.
void RegSetStorePath(LPCSTR path);
// The file the next registry call uses.
std::string RegGetStorePath();
// Commits, and closes the store file (the next call opens it again). Open handles become invalid.
LONG RegCloseStore();
// Why the last failing registry call on this thread failed, when there is more to say than its code
// (a damaged store file, a malformed line of an import); empty otherwise.
std::string RegGetLastMessage();

// The list behind HKEY_CLASSES_ROOT\MIME\Database\Content Type (default /etc/mime.types); null restores
// the default. Keys the program writes under HKEY_CLASSES_ROOT take precedence over the list. Open
// handles become invalid, as with RegSetStorePath.
void RegSetMimeTypesPath(LPCSTR path);

// Export and import in the registry editor's text format. A key path starts with its root's name
// ("HKEY_CURRENT_USER\\Software\\..." or "HKCU\\..."). Export writes a new file or replaces one; below the
// exported key, a key without values that has sub-keys gets no line of its own (its sub-keys' lines
// create it again on import), so that a deep tree does not repeat its paths at every level.
// Import accepts UTF-16 (with byte-order mark) or UTF-8 text, applies "[-key]" and "\"name\"=-" deletions,
// and changes nothing unless every line is valid (ERROR_INVALID_DATA, RegGetLastMessage names the line).
LONG RegExportKey(LPCSTR keyPath, LPCSTR lpFile);
LONG RegImportFile(LPCSTR lpFile);
