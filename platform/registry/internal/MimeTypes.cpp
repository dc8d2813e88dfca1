#include "platform/registry/internal/MimeTypes.h"

#include <sstream>
#include <unordered_map>

#include "platform/internal/SmallFile.h"

namespace tavik::platform {

std::vector<MimeType> ReadMimeTypes(const std::string& path) {
    std::vector<MimeType> types;
    std::string bytes;
    // A hostile list cannot make us hold more than this many bytes or types.
    if (!ReadSmallFile(path, bytes, 16 << 20)) return types;
    std::istringstream in(bytes);
    std::unordered_map<std::string, size_t> seen;  // lower-cased type -> index
    std::string line;
    constexpr size_t kMaxTypes = 100000;
    while (types.size() < kMaxTypes && std::getline(in, line)) {
        if (size_t hash = line.find('#'); hash != std::string::npos) line.erase(hash);
        std::istringstream words(line);
        std::string type, extension;
        if (!(words >> type)) continue;
        size_t slash = type.find('/');
        if (slash == 0 || slash == std::string::npos || slash + 1 == type.size() || type.size() > 255)
            continue;
        if (type.find('\\') != std::string::npos) continue;
        words >> extension;
        if (!extension.empty() && extension[0] != '.') extension.insert(0, 1, '.');
        std::string lower = type;
        for (char& c : lower)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        auto [it, added] = seen.emplace(lower, types.size());
        if (added)
            types.push_back({type, extension});
        else if (types[it->second].extension.empty())
            types[it->second].extension = extension;
    }
    return types;
}

}  // namespace tavik::platform
