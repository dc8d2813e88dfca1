#include <locale.h>
#include <clocale>
#include <cwctype>

#include "platform/compound/internal/Format.h"

namespace tavik::platform::cfb {
namespace {

// glibc's C.UTF-8 carries the full Unicode one-to-one case table; without it we fall back to the
// Latin-1 range, which covers every name Windows-1252 text can produce except a handful of letters.
locale_t UnicodeLocale() {
    static locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    return loc;
}

char16_t FallbackUpper(char16_t c) {
    if (c >= u'a' && c <= u'z') return static_cast<char16_t>(c - 32);
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return static_cast<char16_t>(c - 32);
    if (c == 0xFF) return 0x178;
    if (c == 0x153 || c == 0x161 || c == 0x17E) return static_cast<char16_t>(c - 1);
    return c;
}

}  // namespace

char16_t UpperUnit(char16_t c) {
    if (c < 0x80) return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
    if (c >= 0xD800 && c <= 0xDFFF) return c;
    if (locale_t loc = UnicodeLocale()) {
        wint_t u = towupper_l(static_cast<wint_t>(c), loc);
        // A mapping that leaves the 16-bit range would change the unit count; keep the unit then.
        return u <= 0xFFFF ? static_cast<char16_t>(u) : c;
    }
    return FallbackUpper(c);
}

}  // namespace tavik::platform::cfb
