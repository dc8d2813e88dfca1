// The system's list of media types and their file extensions (mime.types format).
#pragma once

#include <string>
#include <vector>

namespace tavik::platform {

struct MimeType {
    std::string type;       // as the list spells it, e.g. "image/gif"
    std::string extension;  // the first extension with its dot (".gif"), empty when the list names none
};

// One entry per type, in the list's order; a type listed twice keeps its first extension. A missing or
// unreadable file gives an empty list; lines that are not "type/subtype [ext...]" are skipped.
std::vector<MimeType> ReadMimeTypes(const std::string& path);

}  // namespace tavik::platform
