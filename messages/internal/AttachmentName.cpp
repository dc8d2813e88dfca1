#include "messages/internal/AttachmentName.h"

#include <cstring>

namespace tavik::lib {
namespace {

constexpr std::size_t kMaxTitle = 100;
constexpr std::size_t kMaxExtension = 16;

bool refused(unsigned char c) { return c < 0x20 || c == 0x7F || std::strchr("/\\:*?\"<>|", c) != nullptr; }

bool extensionChar(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-' || c == '+';
}

}  // namespace

std::string SafeExtension(std::string_view ext) {
    if (ext.size() < 2 || ext.size() > kMaxExtension || ext[0] != '.') return {};
    for (char c : ext.substr(1)) {
        if (!extensionChar(static_cast<unsigned char>(c))) return {};
    }
    return std::string(ext);
}

SafeName MakeSafeName(std::string_view name) {
    std::string clean(name);
    for (char& c : clean) {
        if (refused(static_cast<unsigned char>(c))) c = '_';
    }
    SafeName out;
    const std::size_t dot = clean.rfind('.');
    if (dot != std::string::npos && dot > 0)
        out.extension = SafeExtension(std::string_view(clean).substr(dot));
    out.title = out.extension.empty() ? clean : clean.substr(0, dot);
    for (char& c : out.title) {
        if (c != '.') break;
        c = '_';
    }
    if (out.title.size() > kMaxTitle) out.title.resize(kMaxTitle);
    if (out.title.empty()) out.title = "mail";
    return out;
}

}  // namespace tavik::lib
