// Names for the files the MIME decoder writes into the temporary directory.
#pragma once

#include <string>
#include <string_view>

namespace tavik::lib {

// A file name from a message, made safe to create inside one directory: separators, drive colons, the
// other characters Windows refuses, control characters and DEL become '_', and so do leading dots (no
// hidden file, no "." or ".."). The extension (from the last dot) is kept when SafeExtension accepts it;
// the title is cut to 100 bytes, and an empty one becomes "mail".
struct SafeName {
    std::string title;
    std::string extension;  // with its dot, or empty
};
SafeName MakeSafeName(std::string_view name);

// ext itself when it is a dot followed by 1 to 15 letters, digits, '_', '-' or '+'; else empty.
std::string SafeExtension(std::string_view ext);

}  // namespace tavik::lib
