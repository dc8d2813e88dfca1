// The registry editor's text format ("Windows Registry Editor Version 5.00", and the older "REGEDIT4"):
// reading a whole file into keys and values, and writing one. Names and string data are in the store's
// encoding (the single-byte Windows-1252 of the library); the file side is UTF-16 as Windows writes it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/WinTypes.h"

namespace tavik::platform {

struct RegTextValue {
    int line = 0;
    std::string name;     // empty: the key's default value ("@")
    bool remove = false;  // "name"=-
    DWORD type = 0;
    std::string data;  // as stored: a REG_SZ text ends with its terminator
};

struct RegTextKey {
    int line = 0;
    bool remove = false;            // [-key]: the key and everything below it
    int root = 0;                   // StoreDatabase::Root
    std::vector<std::string> path;  // the parts below the root
    std::vector<RegTextValue> values;
};

// "HKEY_CURRENT_USER\\a\\b" or "HKCU\\a\\b" (a trailing backslash is allowed). False with the reason
// for an unknown or unsupported root or an empty part.
bool ParseKeyPath(std::string_view text, int* root, std::vector<std::string>* path, std::string* error);
const char* RootName(int root);

// False at the first malformed line, with "line N: why" in *error; *keys is then incomplete and must
// not be applied.
bool ParseRegText(std::string_view bytes, std::vector<RegTextKey>* keys, std::string* error);

// Builds a file in key order as called. Names that the format cannot carry (line breaks) make
// Failed() true.
class RegTextWriter {
public:
    RegTextWriter();
    void Key(const std::string& fullPath);
    void Value(const std::string& name, DWORD type, const std::string& data);
    bool Failed() const { return !m_error.empty(); }
    const std::string& Error() const { return m_error; }
    // UTF-16LE with a byte-order mark and CRLF line ends.
    std::string Bytes() const;

private:
    void Line(const std::u16string& text);
    std::u16string m_text;
    std::string m_error;
};

// Windows-1252 <-> UTF-16LE bytes, as the "hex(2)" and "hex(7)" data of a version 5 file hold text.
std::string AnsiToUtf16Bytes(std::string_view ansi);
bool Utf16BytesToAnsi(std::string_view bytes, std::string* ansi);

}  // namespace tavik::platform
