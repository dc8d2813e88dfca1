#include "tests/messages/MimeGenerator.h"

#include "platform/CArray.h"
#include "transport/CBase64Coding.h"
#include "transport/CUUCoding.h"

namespace tavik::test {

std::string MimeGenerator::Noise(std::size_t maxLength, const std::string& alphabet) {
    std::string s(static_cast<std::size_t>(Pick(static_cast<int>(maxLength) + 1)), ' ');
    for (char& c : s) c = alphabet[static_cast<std::size_t>(Pick(static_cast<int>(alphabet.size())))];
    return s;
}

std::string MimeGenerator::Text(std::size_t words) {
    static const char* const kWords[] = {"hello", "the", "mail",   "<b>", "</b>",  "<p>",
                                         ">",     "<",   "=3D",    "=41", "=\r\n", "\r\n",
                                         "--",    "-- ", "caf=E9", "=00", "=3D41", "<html>"};
    std::string s;
    for (std::size_t i = 0; i < words; ++i) {
        s += kWords[Pick(static_cast<int>(std::size(kWords)))];
        s += Pick(4) ? " " : "\r\n";
    }
    return s;
}

std::string MimeGenerator::Boundary() {
    static const char* const kBoundaries[] = {"b", "bb", "=_part", "XYZ", "=_part_2", "\"q b\"", "b;"};
    return kBoundaries[Pick(static_cast<int>(std::size(kBoundaries)))];
}

std::string MimeGenerator::Leaf() {
    static const char* const kTypes[] = {
        "text/plain", "text/html",     "image/gif", "application/pdf", "application/octet-stream",
        "TEXT/Plain", "message/rfc822"};
    static const char* const kEncodings[] = {"7bit", "base64", "quoted-printable", "x-uuencode", "8bit", ""};
    const std::string type = kTypes[Pick(static_cast<int>(std::size(kTypes)))];
    const std::string encoding = kEncodings[Pick(static_cast<int>(std::size(kEncodings)))];
    std::string header = Pick(5) ? "\r\nContent-Type: " : "\r\nX-Content-Type: ";
    header += type;
    if (Pick(3) == 0) header += "; charset=\"us-ascii\"";
    if (Pick(2) == 0) header += Pick(2) ? ";\r\n\tname=\"my file.pdf\"" : "; filename=a b.gif";
    if (!encoding.empty()) header += "\r\nContent-Transfer-Encoding: " + encoding;
    if (Pick(4) == 0) header += "\r\nContent-Disposition: attachment";

    std::string content;
    if (!m_contents.empty() && Pick(5) == 0) {
        content = m_contents[static_cast<std::size_t>(Pick(static_cast<int>(m_contents.size())))];
    } else if (Pick(8) == 0) {
        content = "";
    } else if (encoding == "base64" || encoding == "x-uuencode") {
        CByteArray bytes;
        for (int i = Pick(60); i > 0; --i) bytes.Add(static_cast<BYTE>(Pick(256)));
        CString text;
        if (encoding == "base64") {
            CBase64Coding().Encode(bytes, text);
        } else {
            CUUCoding().Encode(bytes, text);
        }
        content = text.str() + "\r\n";
    } else {
        content = Text(static_cast<std::size_t>(Pick(12)));
        if (Pick(6) == 0) content += std::string(1, '\0') + "after zero";
    }
    m_contents.push_back(content);
    return header + "\r\n\r\n" + content;
}

std::string MimeGenerator::Multipart(int depth, const std::string& subtype) {
    std::string boundary = Boundary();
    std::string mark = boundary;
    if (mark.size() > 1 && mark.front() == '"') mark = mark.substr(1, mark.size() - 2);
    mark.erase(std::remove(mark.begin(), mark.end(), ' '), mark.end());
    if (mark.back() == ';') mark.pop_back();
    std::string header =
        "\r\nContent-Type: multipart/" + subtype + ";" + (Pick(2) ? " " : "\r\n\t") + "boundary=" + boundary;
    std::string body = Pick(3) ? "" : "preamble " + Text(2);
    for (int n = 1 + Pick(4); n > 0; --n) body += "\r\n--" + mark + Part(depth + 1) + "\r\n";
    body += "\r\n--" + mark + "--\r\n";
    if (Pick(3) == 0) body += "epilogue " + Text(2);
    return header + "\r\n\r\n" + body;
}

std::string MimeGenerator::Part(int depth) {
    if (depth < 3 && Pick(3) == 0) return Multipart(depth, Pick(2) ? "mixed" : "alternative");
    return Leaf();
}

std::string MimeGenerator::Message() {
    m_contents.clear();
    std::string top = "From: a@example.org\r\nSubject: test";
    std::string part = Pick(4) ? Multipart(0, "mixed") : Leaf();
    return top + part;
}

std::string MimeGenerator::Damage(std::string message) {
    for (int edits = 1 + Pick(4); edits > 0 && !message.empty(); --edits) {
        const std::size_t at = static_cast<std::size_t>(Pick(static_cast<int>(message.size())));
        const std::size_t length = std::min<std::size_t>(message.size() - at, 1 + Pick(40));
        switch (Pick(5)) {
            case 0:
                message[at] = "\r\n-=<>\0Ab;"[Pick(10)];
                break;
            case 1:
                message.insert(at, Noise(6, std::string("\r\n-=<>Ab;\0", 10)));
                break;
            case 2:
                message.erase(at, length);
                break;
            case 3:
                message.insert(at, message.substr(at, length));
                break;
            default:
                message.resize(at);
                break;
        }
    }
    return message;
}

}  // namespace tavik::test
