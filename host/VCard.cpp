#include "host/VCard.h"

#include <algorithm>
#include <cctype>

namespace tavik::host {

namespace {

struct Line {
    int number;  // of its first physical line
    std::string text;
};

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::vector<Line> Unfold(const std::string& text) {
    std::vector<Line> lines;
    int number = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string physical = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        pos = end == std::string::npos ? text.size() : end + 1;
        ++number;
        if (!physical.empty() && physical.back() == '\r') physical.pop_back();
        if (!physical.empty() && (physical[0] == ' ' || physical[0] == '\t') && !lines.empty()) {
            lines.back().text += physical.substr(1);
            continue;
        }
        lines.push_back({number, physical});
    }
    return lines;
}

// Splits on unescaped sep and unescapes each part.
std::vector<std::string> Split(const std::string& value, char sep) {
    std::vector<std::string> parts(1);
    for (size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        if (c == '\\' && i + 1 < value.size()) {
            char n = value[++i];
            parts.back() += (n == 'n' || n == 'N') ? '\n' : n;
        } else if (c == sep) {
            parts.emplace_back();
        } else {
            parts.back() += c;
        }
    }
    return parts;
}

std::string Unescape(const std::string& value) {
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == '\\' && i + 1 < value.size()) {
            char n = value[++i];
            out += (n == 'n' || n == 'N') ? '\n' : n;
        } else {
            out += value[i];
        }
    }
    return out;
}

std::string Escape(const std::string& value) {
    std::string out;
    for (char c : value) {
        if (c == '\\' || c == ',' || c == ';') out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        if (c == '\r') continue;
        out += c;
    }
    return out;
}

// TYPE parameters in either form: TYPE=work,home / TYPE="work,voice" / a bare "WORK" (older writers).
std::vector<std::string> Types(const std::vector<std::string>& params) {
    std::vector<std::string> types;
    for (const std::string& p : params) {
        size_t eq = p.find('=');
        std::string name = Lower(eq == std::string::npos ? "type" : p.substr(0, eq));
        std::string value = eq == std::string::npos ? p : p.substr(eq + 1);
        if (name == "pref") {
            types.push_back("pref");
            continue;
        }
        if (name != "type") continue;
        value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
        for (const std::string& t : Split(value, ',')) types.push_back(Lower(t));
    }
    return types;
}

std::string At(const std::vector<std::string>& parts, size_t i) { return i < parts.size() ? parts[i] : ""; }

// Appends "NAME[;params]:value" folded at 75 octets, never inside a UTF-8 sequence.
void Emit(std::string& out, const std::string& line) {
    size_t pos = 0;
    bool first = true;
    while (pos < line.size()) {
        size_t room = first ? 75 : 74;
        size_t take = std::min(room, line.size() - pos);
        while (take > 1 && pos + take < line.size() &&
               (static_cast<unsigned char>(line[pos + take]) & 0xC0) == 0x80)
            --take;
        out += (first ? "" : " ") + line.substr(pos, take) + "\r\n";
        pos += take;
        first = false;
    }
    if (line.empty()) out += "\r\n";
}

std::string TypeParam(const std::vector<std::string>& types) {
    if (types.empty()) return "";
    std::string joined;
    for (const std::string& t : types) joined += (joined.empty() ? "" : ",") + t;
    return ";TYPE=" + joined;
}

}  // namespace

std::vector<VCardContact> ParseVCards(const std::string& text, const std::string& source) {
    std::vector<VCardContact> cards;
    bool open = false;
    int openedAt = 0;
    bool hasName = false;
    std::string version;
    for (const Line& line : Unfold(text)) {
        auto fail = [&](const std::string& why) {
            throw VCardError(source + ":" + std::to_string(line.number) + ": " + why);
        };
        if (line.text.find_first_not_of(" \t") == std::string::npos) continue;
        // A zero byte would cut the value short where it is stored.
        if (line.text.find('\0') != std::string::npos) fail("not a text line");
        size_t colon = std::string::npos;
        bool quoted = false;
        for (size_t i = 0; i < line.text.size(); ++i) {
            if (line.text[i] == '"') quoted = !quoted;
            if (line.text[i] == ':' && !quoted) {
                colon = i;
                break;
            }
        }
        if (colon == std::string::npos || colon == 0) fail("expected NAME:VALUE");
        std::vector<std::string> head = Split(line.text.substr(0, colon), ';');
        std::string name = Lower(head[0]);
        if (size_t dot = name.rfind('.'); dot != std::string::npos) name = name.substr(dot + 1);  // group
        std::vector<std::string> params(head.begin() + 1, head.end());
        const std::string raw = line.text.substr(colon + 1);
        if (name == "begin") {
            if (Lower(raw) != "vcard") fail("BEGIN:" + raw + " is not a vCard");
            if (open) fail("BEGIN:VCARD inside the card begun on line " + std::to_string(openedAt));
            open = true;
            openedAt = line.number;
            hasName = false;
            version.clear();
            cards.emplace_back();
            continue;
        }
        if (!open) fail("'" + head[0] + "' outside BEGIN:VCARD ... END:VCARD");
        VCardContact& card = cards.back();
        if (name == "end") {
            if (Lower(raw) != "vcard") fail("END:" + raw + " does not end a vCard");
            if (version.empty())
                fail("the card begun on line " + std::to_string(openedAt) + " has no VERSION");
            if (!hasName)
                fail("the card begun on line " + std::to_string(openedAt) + " has neither FN nor N");
            open = false;
        } else if (name == "version") {
            if (raw != "3.0" && raw != "4.0") fail("vCard version " + raw + " (only 3.0 and 4.0 are read)");
            version = raw;
        } else if (name == "fn") {
            card.formattedName = Unescape(raw);
            hasName = hasName || !card.formattedName.empty();
        } else if (name == "n") {
            std::vector<std::string> parts = Split(raw, ';');
            card.family = At(parts, 0);
            card.given = At(parts, 1);
            card.additional = At(parts, 2);
            card.prefix = At(parts, 3);
            card.suffix = At(parts, 4);
            hasName = hasName || !(card.family + card.given + card.additional).empty();
        } else if (name == "email") {
            card.emails.push_back({Types(params), Unescape(raw)});
        } else if (name == "tel") {
            std::string value = Unescape(raw);
            if (Lower(value).starts_with("tel:")) value = value.substr(4);
            card.phones.push_back({Types(params), value});
        } else if (name == "adr") {
            std::vector<std::string> parts = Split(raw, ';');
            // Post office box and extended address join the street.
            std::string street = At(parts, 2);
            for (size_t i : {1u, 0u})
                if (!At(parts, i).empty())
                    street = street.empty() ? At(parts, i) : street + "\n" + At(parts, i);
            card.addresses.push_back(
                {Types(params), street, At(parts, 3), At(parts, 4), At(parts, 5), At(parts, 6)});
        } else if (name == "org") {
            card.organization = At(Split(raw, ';'), 0);
        } else if (name == "title") {
            card.title = Unescape(raw);
        } else if (name == "url") {
            card.url = Unescape(raw);
        } else if (name == "note") {
            card.note = Unescape(raw);
        }
    }
    if (open)
        throw VCardError(source + ":" + std::to_string(openedAt) + ": the card begun here has no END:VCARD");
    if (cards.empty()) throw VCardError(source + ": no BEGIN:VCARD in the file");
    return cards;
}

std::string WriteVCards(const std::vector<VCardContact>& cards, const std::string& version) {
    std::string out;
    for (const VCardContact& c : cards) {
        Emit(out, "BEGIN:VCARD");
        Emit(out, "VERSION:" + version);
        std::string fn = c.formattedName;
        if (fn.empty()) {
            for (const std::string* part : {&c.prefix, &c.given, &c.additional, &c.family, &c.suffix})
                if (!part->empty()) fn += (fn.empty() ? "" : " ") + *part;
        }
        Emit(out, "FN:" + Escape(fn));
        Emit(out, "N:" + Escape(c.family) + ";" + Escape(c.given) + ";" + Escape(c.additional) + ";" +
                      Escape(c.prefix) + ";" + Escape(c.suffix));
        if (!c.organization.empty()) Emit(out, "ORG:" + Escape(c.organization));
        if (!c.title.empty()) Emit(out, "TITLE:" + Escape(c.title));
        for (const auto& e : c.emails) Emit(out, "EMAIL" + TypeParam(e.types) + ":" + Escape(e.value));
        for (const auto& p : c.phones) Emit(out, "TEL" + TypeParam(p.types) + ":" + Escape(p.value));
        for (const auto& a : c.addresses)
            Emit(out, "ADR" + TypeParam(a.types) + ":;;" + Escape(a.street) + ";" + Escape(a.city) + ";" +
                          Escape(a.region) + ";" + Escape(a.postalCode) + ";" + Escape(a.country));
        if (!c.url.empty()) Emit(out, "URL:" + Escape(c.url));
        if (!c.note.empty()) Emit(out, "NOTE:" + Escape(c.note));
        Emit(out, "END:VCARD");
    }
    return out;
}

}  // namespace tavik::host
