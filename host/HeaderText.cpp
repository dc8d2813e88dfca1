#include "host/HeaderText.h"

#include <cstring>

#include "platform/CString.h"
#include "platform/Unicode.h"
#include "transport/CBase64.h"

namespace tavik::host {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (Lower(a[i]) != Lower(b[i])) return false;
    return true;
}

std::string_view Trim(std::string_view s) {
    while (!s.empty() && (IsBlank(s.front()) || s.front() == '\r' || s.front() == '\n')) s.remove_prefix(1);
    while (!s.empty() && (IsBlank(s.back()) || s.back() == '\r' || s.back() == '\n')) s.remove_suffix(1);
    return s;
}

// The length of the UTF-8 sequence at text[i] and its code point; 0 when there is none.
size_t Utf8At(std::string_view text, size_t i, char32_t& code) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
        code = lead;
        return 1;
    }
    const size_t n = lead >= 0xF0 && lead <= 0xF4  ? 4
                     : lead >= 0xE0                ? 3
                     : lead >= 0xC2 && lead < 0xE0 ? 2
                                                   : 0;
    if (n == 0 || i + n > text.size()) return 0;
    code = lead & (0x7F >> n);
    for (size_t k = 1; k < n; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i + k) & 0x3F);
    }
    const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[n] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return n;
}

bool IsUtf8(std::string_view text) {
    char32_t code;
    for (size_t i = 0; i < text.size();) {
        const size_t n = Utf8At(text, i, code);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

void AppendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | c >> 6);
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | c >> 12);
        out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | c >> 18);
        out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
        out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

std::string Windows1252ToUtf8(std::string_view bytes) { return TavikWideToUtf8(AnsiToWide(bytes)); }

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string DecodeQ(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '_') {
            out += ' ';
        } else if (text[i] == '=' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
                   HexValue(text[i + 2]) >= 0) {
            out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string DecodeB(std::string_view text) {
    const std::string input(text);  // the decoder wants a terminated text
    std::string out(input.size() * 3 / 4 + 3, '\0');
    CBase64 base64;
    out.resize(static_cast<size_t>(base64.Decode(input.c_str(), out.data())));
    return out;
}

// An encoded word at text[at]: its charset, its decoded bytes and its length. False when the text there
// is not one.
struct EncodedWord {
    std::string_view charset;
    std::string bytes;
    size_t length = 0;
};

// blankAt remembers where the last scan for an end met a blank: a word that starts before it cannot end
// before it either, so a value full of "=?" is read in linear time.
bool ReadEncodedWord(std::string_view text, size_t at, EncodedWord& word, size_t& blankAt) {
    if (text.substr(at, 2) != "=?" || at < blankAt) return false;
    const auto stops = [](char c) { return IsBlank(c) || static_cast<unsigned char>(c) < 0x21; };
    size_t charsetEnd = at + 2;
    while (charsetEnd < text.size() && charsetEnd - at <= 80 && text[charsetEnd] != '?' &&
           !stops(text[charsetEnd]))
        ++charsetEnd;
    if (charsetEnd >= text.size() || text[charsetEnd] != '?' || charsetEnd == at + 2) return false;
    const std::string_view charset = text.substr(at + 2, charsetEnd - at - 2);
    if (charsetEnd + 2 >= text.size() || text[charsetEnd + 2] != '?') return false;
    const char encoding = Lower(text[charsetEnd + 1]);
    if (encoding != 'b' && encoding != 'q') return false;
    const size_t start = charsetEnd + 3;
    size_t end = start;
    while (end < text.size() && !stops(text[end]) && text.substr(end, 2) != "?=") ++end;
    if (end >= text.size() || stops(text[end])) {
        blankAt = end;
        return false;
    }
    const std::string_view encoded = text.substr(start, end - start);
    // "charset*language" (RFC 2231) names the charset before the star.
    word.charset = charset.substr(0, charset.find('*'));
    word.bytes = encoding == 'b' ? DecodeB(encoded) : DecodeQ(encoded);
    word.length = end + 2 - at;
    return true;
}

// Where a mailbox's bare address lies: inside the last angle brackets, else the whole text without its
// comments.
std::string AddressOf(std::string_view piece) {
    size_t open = std::string_view::npos, close = std::string_view::npos;
    bool quoted = false;
    int comment = 0;
    for (size_t i = 0; i < piece.size(); ++i) {
        const char c = piece[i];
        if (c == '\\' && (quoted || comment)) {
            ++i;
        } else if (quoted) {
            if (c == '"') quoted = false;
        } else if (comment) {
            if (c == '(') ++comment;
            if (c == ')') --comment;
        } else if (c == '"') {
            quoted = true;
        } else if (c == '(') {
            ++comment;
        } else if (c == '<') {
            open = i;
        } else if (c == '>' && open != std::string_view::npos) {
            close = i;
        }
    }
    if (open != std::string_view::npos && close != std::string_view::npos && close > open)
        return std::string(Trim(piece.substr(open + 1, close - open - 1)));
    std::string bare;
    comment = 0;
    for (char c : piece) {
        if (c == '(')
            ++comment;
        else if (c == ')' && comment)
            --comment;
        else if (!comment && !IsBlank(c) && c != '"')
            bare += c;
    }
    return bare;
}

}  // namespace

std::vector<HeaderField> ParseHeaderFields(std::string_view header) {
    std::vector<HeaderField> fields;
    bool continuing = false;  // the last line began a field that may go on
    for (size_t at = 0; at < header.size();) {
        size_t end = header.find('\n', at);
        if (end == std::string_view::npos) end = header.size();
        std::string_view line = header.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) break;
        if (IsBlank(line.front())) {
            if (continuing) fields.back().value.append(line);
            continue;
        }
        const size_t colon = line.find(':');
        continuing = colon != std::string_view::npos;
        if (!continuing) continue;
        std::string_view name = line.substr(0, colon);
        while (!name.empty() && IsBlank(name.back())) name.remove_suffix(1);
        fields.push_back({std::string(name), std::string(line.substr(colon + 1))});
    }
    for (HeaderField& f : fields) f.value = std::string(Trim(f.value));
    return fields;
}

const HeaderField* FindField(const std::vector<HeaderField>& fields, std::string_view name) {
    for (const HeaderField& f : fields)
        if (EqualNoCase(f.name, name)) return &f;
    return nullptr;
}

std::string TextToUtf8(std::string_view bytes) {
    if (IsUtf8(bytes)) return std::string(bytes);
    // Keep the UTF-8 runs and read only the stray bytes as Windows-1252: a header may mix both.
    std::string out;
    char32_t code;
    for (size_t i = 0; i < bytes.size();) {
        const size_t n = Utf8At(bytes, i, code);
        if (n > 0) {
            out.append(bytes.substr(i, n));
            i += n;
        } else {
            out += Windows1252ToUtf8(bytes.substr(i, 1));
            ++i;
        }
    }
    return out;
}

std::string CharsetToUtf8(std::string_view bytes, std::string_view charset) {
    if (EqualNoCase(charset, "utf-8") || EqualNoCase(charset, "utf8"))
        return IsUtf8(bytes) ? std::string(bytes) : CodePointsToUtf8(Utf8ToCodePoints(bytes));
    static constexpr std::string_view kLatin[] = {"us-ascii", "ascii",       "iso-8859-1", "iso8859-1",
                                                  "latin1",   "iso-8859-15", "latin-1",    "windows-1252",
                                                  "cp1252",   "iso_8859-1",  "l1",         "ansi_x3.4-1968"};
    for (std::string_view name : kLatin)
        if (EqualNoCase(charset, name)) return Windows1252ToUtf8(bytes);
    return TextToUtf8(bytes);
}

std::string DecodeHeaderValue(std::string_view value) {
    std::string out;
    std::string pendingBytes;    // adjacent words of one charset, joined before conversion: a character
    std::string pendingCharset;  // may be split between two words
    size_t plainStart = 0, blankAt = 0;
    bool afterWord = false;
    const auto flush = [&] {
        if (!pendingBytes.empty()) out += CharsetToUtf8(pendingBytes, pendingCharset);
        pendingBytes.clear();
    };
    for (size_t i = 0; i < value.size();) {
        EncodedWord word;
        if (value[i] == '=' && ReadEncodedWord(value, i, word, blankAt)) {
            const std::string_view between = value.substr(plainStart, i - plainStart);
            bool onlyBlanks = true;
            for (char c : between)
                if (!IsBlank(c) && c != '\r' && c != '\n') onlyBlanks = false;
            if (!(afterWord && onlyBlanks)) {
                flush();
                out += TextToUtf8(between);
            }
            if (!EqualNoCase(word.charset, pendingCharset)) flush();
            pendingCharset = std::string(word.charset);
            pendingBytes += word.bytes;
            i += word.length;
            plainStart = i;
            afterWord = true;
            continue;
        }
        if (!IsBlank(value[i]) && value[i] != '\r' && value[i] != '\n') afterWord = false;
        ++i;
    }
    flush();
    out += TextToUtf8(value.substr(plainStart));
    return out;
}

std::string EncodeHeaderValue(std::string_view utf8) {
    bool plain = utf8.find("=?") == std::string_view::npos;
    for (char c : utf8)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) plain = false;
    if (plain) return std::string(utf8);
    const std::string text = IsUtf8(utf8) ? std::string(utf8) : TextToUtf8(utf8);
    std::string out;
    CBase64 base64;
    // 45 bytes make 60 characters of Base64; with "=?UTF-8?B?" and "?=" a word stays within 75.
    for (size_t at = 0; at < text.size();) {
        size_t take = 0;
        char32_t code;
        while (at + take < text.size()) {
            const size_t n = Utf8At(text, at + take, code);
            if (take + n > 45) break;
            take += n;
        }
        if (!out.empty()) out += ' ';
        out += "=?UTF-8?B?";
        out += base64.Encode(text.data() + at, static_cast<int>(take)).str();
        out += "?=";
        at += take;
    }
    return out;
}

std::string HeaderParameter(std::string_view value, std::string_view name) {
    std::string plain, extended, charset;
    bool havePlain = false, haveExtended = false;
    std::vector<std::pair<int, std::string>> pieces;  // continuations: number, text (percent-decoded)
    const auto percentDecode = [](std::string_view text) {
        std::string out;
        for (size_t i = 0; i < text.size(); ++i) {
            if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
                HexValue(text[i + 2]) >= 0) {
                out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
                i += 2;
            } else {
                out += text[i];
            }
        }
        return out;
    };
    // "charset'language'text": the charset is kept, the text returned.
    const auto dropCharset = [&](std::string_view text) {
        const size_t first = text.find('\'');
        const size_t second = first == std::string_view::npos ? first : text.find('\'', first + 1);
        if (second == std::string_view::npos) return text;
        charset = std::string(text.substr(0, first));
        return text.substr(second + 1);
    };
    size_t at = value.find(';');
    while (at != std::string_view::npos && at < value.size()) {
        ++at;
        // One "key=value" up to the next ';' outside quotes.
        std::string key, text;
        bool inKey = true, quoted = false;
        for (; at < value.size(); ++at) {
            const char c = value[at];
            if (quoted) {
                if (c == '\\' && at + 1 < value.size())
                    text += value[++at];
                else if (c == '"')
                    quoted = false;
                else
                    text += c;
            } else if (c == ';') {
                break;
            } else if (inKey && c == '=') {
                inKey = false;
            } else if (inKey) {
                if (!IsBlank(c)) key += Lower(c);
            } else if (c == '"') {
                quoted = true;
            } else if (!IsBlank(c) && c != '\r' && c != '\n') {
                text += c;
            }
        }
        if (inKey || key.size() < name.size() ||
            !EqualNoCase(std::string_view(key).substr(0, name.size()), name))
            continue;
        const std::string_view rest = std::string_view(key).substr(name.size());
        if (rest.empty()) {
            plain = text;
            havePlain = true;
        } else if (rest == "*") {
            extended = percentDecode(dropCharset(text));
            haveExtended = true;
        } else if (rest[0] == '*' && rest.size() <= 5) {
            const bool encoded = rest.back() == '*';
            const std::string_view digits = rest.substr(1, rest.size() - 1 - (encoded ? 1 : 0));
            int number = 0;
            bool ok = !digits.empty();
            for (char d : digits) {
                if (d < '0' || d > '9')
                    ok = false;
                else
                    number = number * 10 + (d - '0');
            }
            if (!ok || pieces.size() >= 1000) continue;
            std::string_view piece = text;
            if (encoded && number == 0) piece = dropCharset(piece);
            pieces.emplace_back(number, encoded ? percentDecode(piece) : std::string(piece));
        }
    }
    if (!pieces.empty()) {
        std::string joined;
        // In number order, stopping at the first gap.
        for (int n = 0;; ++n) {
            bool found = false;
            for (const auto& [number, piece] : pieces)
                if (number == n) {
                    joined += piece;
                    found = true;
                    break;
                }
            if (!found) break;
        }
        return charset.empty() ? DecodeHeaderValue(joined) : CharsetToUtf8(joined, charset);
    }
    if (haveExtended) return charset.empty() ? TextToUtf8(extended) : CharsetToUtf8(extended, charset);
    if (havePlain) return DecodeHeaderValue(plain);
    return {};
}

std::vector<Mailbox> ParseAddressList(std::string_view value) {
    std::vector<Mailbox> boxes;
    const auto add = [&](std::string_view piece) {
        piece = Trim(piece);
        // A group's name ends at a colon outside quotes and brackets; its list ends with ';'.
        bool quoted = false;
        for (size_t i = 0; i < piece.size(); ++i) {
            if (piece[i] == '\\')
                ++i;
            else if (piece[i] == '"')
                quoted = !quoted;
            else if (!quoted && (piece[i] == '<' || piece[i] == '('))
                break;
            else if (!quoted && piece[i] == ':') {
                piece = Trim(piece.substr(i + 1));
                break;
            }
        }
        while (!piece.empty() && (piece.back() == ';' || IsBlank(piece.back()))) piece.remove_suffix(1);
        if (piece.empty()) return;
        boxes.push_back({DecodeHeaderValue(piece), TextToUtf8(AddressOf(piece))});
    };
    bool quoted = false;
    int comment = 0, angle = 0;
    size_t start = 0;
    for (size_t i = 0; i < value.size(); ++i) {
        const char c = value[i];
        if (c == '\\' && (quoted || comment)) {
            ++i;
        } else if (quoted) {
            if (c == '"') quoted = false;
        } else if (comment) {
            if (c == '(') ++comment;
            if (c == ')') --comment;
        } else if (c == '"') {
            quoted = true;
        } else if (c == '(') {
            ++comment;
        } else if (c == '<') {
            ++angle;
        } else if (c == '>' && angle) {
            --angle;
        } else if (c == ',' && !angle) {
            add(value.substr(start, i - start));
            start = i + 1;
        }
    }
    if (start <= value.size()) add(value.substr(start));
    return boxes;
}

std::string FirstAddress(std::string_view value) {
    const std::vector<Mailbox> boxes = ParseAddressList(value);
    return boxes.empty() ? std::string() : boxes.front().address;
}

std::u32string Utf8ToCodePoints(std::string_view utf8) {
    std::u32string out;
    out.reserve(utf8.size());
    char32_t code;
    for (size_t i = 0; i < utf8.size();) {
        const size_t n = Utf8At(utf8, i, code);
        if (n == 0) {
            out += U'\uFFFD';
            ++i;
        } else {
            out += code;
            i += n;
        }
    }
    return out;
}

std::string CodePointsToUtf8(std::u32string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char32_t c : text) AppendUtf8(out, c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF) ? U'\uFFFD' : c);
    return out;
}

char32_t FoldCase(char32_t c) {
    if (c < 0x80) return c >= 'A' && c <= 'Z' ? c + 32 : c;
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) return c + 32;
    if (c >= 0x100 && c <= 0x137) return c | 1;  // pairs: capital even, small odd
    if (c >= 0x139 && c <= 0x148) return (c & 1) ? c + 1 : c;
    if (c >= 0x14A && c <= 0x177) return c | 1;
    if (c == 0x178) return 0xFF;
    if (c >= 0x179 && c <= 0x17E) return (c & 1) ? c + 1 : c;
    if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) return c + 32;
    if (c >= 0x410 && c <= 0x42F) return c + 32;
    if (c >= 0x400 && c <= 0x40F) return c + 80;
    return c;
}

char32_t UpperCase(char32_t c) {
    if (c < 0x80) return c >= 'a' && c <= 'z' ? c - 32 : c;
    if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return c - 32;
    if (c == 0xFF) return 0x178;
    if (c >= 0x100 && c <= 0x137) return c & ~char32_t{1};
    if (c >= 0x139 && c <= 0x148) return (c & 1) ? c : c - 1;
    if (c >= 0x14A && c <= 0x177) return c & ~char32_t{1};
    if (c >= 0x179 && c <= 0x17E) return (c & 1) ? c : c - 1;
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return c - 32;
    if (c >= 0x430 && c <= 0x44F) return c - 32;
    if (c >= 0x450 && c <= 0x45F) return c - 80;
    return c;
}

std::u32string FoldedText(std::string_view utf8) {
    std::u32string text = Utf8ToCodePoints(utf8);
    for (char32_t& c : text) c = FoldCase(c);
    return text;
}

}  // namespace tavik::host
