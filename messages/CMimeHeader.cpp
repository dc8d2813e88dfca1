#include "messages/CMimeHeader.h"

#include <cstring>
#include <string>
#include <vector>

#include "messages/internal/AttachmentName.h"
#include "messages/internal/QuotedPrintable.h"
#include "platform/CFile.h"
#include "platform/FileSystem.h"
#include "platform/MessageBox.h"
#include "platform/Registry.h"
#include "transport/CBase64Coding.h"
#include "transport/CUUCoding.h"
#include "util/CFileManager.h"

namespace {

constexpr DWORD kTempPathLength = 260;
constexpr DWORD kExtensionBuffer = 1024;
// Numbered variants of a taken name tried before falling back to a generated one.
constexpr int kNameVariants = 100;

bool equalNoCase(std::string_view a, const char* b) {
    std::size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (std::size_t i = 0; i < n; ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
        if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
        if (x != y) return false;
    }
    return true;
}

// The temporary directory with its separator; empty when it does not fit the buffer.
std::string tempDirectory() {
    char dir[kTempPathLength] = "";
    DWORD n = GetTempPath(kTempPathLength, dir);
    return n > 0 && n < kTempPathLength ? std::string(dir, n) : std::string();
}

// A new empty file "mai*.tmp" in dir; empty when none could be made.
std::string newTempFile(const std::string& dir) {
    if (dir.empty()) return {};
    char name[MAX_PATH] = "";
    return GetTempFileName(dir.c_str(), "mail", 0, name) ? std::string(name) : std::string();
}

void splitTitle(const std::string& path, std::string& title, std::string& ext) {
    char t[_MAX_FNAME] = "", e[_MAX_EXT] = "";
    _splitpath(path.c_str(), nullptr, nullptr, t, e);
    title = t;
    ext = e;
}

}  // namespace

void CMimeHeader::Initialize(XString& headerText, XString& content) {
    m_strHeader = headerText;
    m_strContent = content;
    ParseMimeHeader();
}

void CMimeHeader::InitializeHeader(std::string_view headerText) {
    m_strHeader = XString(CString(headerText));
    m_strContent.Empty();
    ParseMimeHeader();
}

void CMimeHeader::ParseMimeHeader() {
    const std::string& header = m_strHeader.str();
    std::string upper(header);
    for (char& c : upper) {
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    int collected = 0;
    std::size_t pos = 0;
    for (std::size_t at; (at = upper.find("CONTENT-", pos)) != std::string::npos;) {
        // A line ending in ';' goes on with the next one.
        std::size_t end = header.find("\r\n", at);
        while (end != std::string::npos && header[end - 1] == ';') end = header.find("\r\n", end + 2);
        if (end == std::string::npos) end = header.size();
        std::string field;
        field.reserve(end - at);
        for (std::size_t i = at; i < end; ++i) {
            const char c = header[i];
            if (c != '\t' && c != ' ' && c != '\n' && c != '\r' && c != '\v' && c != '\f' && c != '"')
                field += c;
        }
        XString line{CString(std::move(field))};
        ParseContent(line);
        ++collected;
        pos = end;
    }
    if (collected == 0 || m_strContentType.IsEmpty() || !m_strFileName.IsEmpty()) return;
    const CString ext = GetSubType();
    const std::string temp = newTempFile(tempDirectory());
    if (temp.empty()) return;
    if (m_pFileManager) m_pFileManager->AddTempFile(temp.c_str());
    m_strOwnFile = temp.c_str();
    std::string title, ownExt;
    splitTitle(temp, title, ownExt);
    m_strFileName = CString(title) + (ext.IsEmpty() ? CString(ownExt) : ext);
}

void CMimeHeader::ParseContent(XString& line) {
    const std::string_view text(line.str());
    const std::size_t colon = text.find(':');
    const std::string_view name = text.substr(0, colon);
    // Without a ':' nothing comes after it: the value is empty.
    const CString value =
        colon == std::string_view::npos ? CString() : XString(CString(text.substr(colon + 1))).Trim();
    if (equalNoCase(name, "Content-Type")) {
        const std::string_view v(value.str());
        std::size_t from = 0;
        for (int index = 0;; ++index) {
            const std::size_t semi = v.find(';', from);
            const std::string_view element =
                v.substr(from, semi == std::string_view::npos ? semi : semi - from);
            if (index == 0) {
                m_strContentType = CString(element);
            } else {
                const std::size_t eq = element.find('=');
                const std::string_view key = element.substr(0, eq);
                const CString data(eq == std::string_view::npos ? std::string_view()
                                                                : element.substr(eq + 1));
                if (equalNoCase(key, "charset")) {
                    m_strCharset = data;
                } else if (equalNoCase(key, "boundary")) {
                    m_strBoundary = data;
                } else if (equalNoCase(key, "name") || equalNoCase(key, "filename") ||
                           equalNoCase(key, "file")) {
                    m_strFileName = data;
                }
            }
            if (semi == std::string_view::npos) break;
            from = semi + 1;
        }
    } else if (equalNoCase(name, "Content-Transfer-Encoding")) {
        m_strTransferEncoding = value;
    }
}

// Read without creating the key: a message must not be able to add keys to the registry.
CString CMimeHeader::GetSubType() {
    if (m_pExtensions) {
        auto known = m_pExtensions->find(m_strContentType.str());
        if (known != m_pExtensions->end()) return known->second;
    }
    const CString ext = LookUpSubType();
    if (m_pExtensions) m_pExtensions->emplace(m_strContentType.str(), ext);
    return ext;
}

CString CMimeHeader::LookUpSubType() {
    const CString path = CString("MIME\\Database\\Content Type\\") + m_strContentType;
    HKEY key = nullptr;
    if (RegOpenKeyEx(HKEY_CLASSES_ROOT, path, 0, KEY_READ, &key) != ERROR_SUCCESS) return CString();
    char buffer[kExtensionBuffer + 1] = {};
    DWORD size = kExtensionBuffer;
    const LONG rc =
        RegQueryValueEx(key, "Extension", nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size);
    RegCloseKey(key);
    if (rc != ERROR_SUCCESS) return CString();
    buffer[size < kExtensionBuffer ? size : kExtensionBuffer] = '\0';
    return CString(buffer);
}

void CMimeHeader::TransferContent(XString& text, CByteArray& out) {
    std::vector<BYTE>& bytes = out.vector();
    bytes.reserve(bytes.size() + text.str().size() + 1);
    bytes.insert(bytes.end(), text.str().begin(), text.str().end());
    bytes.push_back(0);
}

void CMimeHeader::Decode() {
    m_DecodedContent.RemoveAll();
    if (m_strContent.IsEmpty()) return;
    const XString encoding(m_strTransferEncoding);
    if (m_strTransferEncoding.CompareNoCase("base64") == 0) {
        CBase64Coding().Decode(m_strContent, m_DecodedContent);
        m_DecodedContent.Add(0);
    } else if (encoding.NCFind("uuencode") >= 0) {
        CUUCoding().Decode(m_strContent, m_DecodedContent);
        m_DecodedContent.Add(0);
    } else if (encoding.NCFind("quoted-printable") >= 0) {
        // Decoded where it lands, as TransferContent would have copied the decoded text.
        TransferContent(m_strContent, m_DecodedContent);
        std::vector<BYTE>& bytes = m_DecodedContent.vector();
        bytes.resize(
            tavik::lib::DecodeQuotedPrintable(reinterpret_cast<char*>(bytes.data()), bytes.size() - 1));
        bytes.push_back(0);
    } else {
        TransferContent(m_strContent, m_DecodedContent);
    }
}

CString CMimeHeader::GetSafeFileName() const {
    if (m_strFileName.IsEmpty()) return CString();
    const tavik::lib::SafeName safe = tavik::lib::MakeSafeName(m_strFileName.str());
    return CString(safe.title + safe.extension);
}

const unsigned char* CMimeHeader::GetDecodedContent() {
    static const unsigned char kEmpty = 0;
    Decode();
    return m_DecodedContent.IsEmpty() ? &kEmpty : m_DecodedContent.GetData();
}

XString CMimeHeader::GetLocalFile(CString path) {
    Decode();
    const CString typeExt = GetSubType();
    const std::string dir = tempDirectory();
    std::string title, ext;
    if (m_strFileName.IsEmpty()) {
        const std::string temp = newTempFile(dir);
        std::string ownExt;
        if (temp.empty()) {
            AfxMessageBox("unable to create temporary file");
        } else {
            if (m_pFileManager) m_pFileManager->AddTempFile(temp.c_str());
            m_strOwnFile = temp.c_str();
            splitTitle(temp, title, ownExt);
        }
        const CString chosen = typeExt.IsEmpty() ? CString(ownExt) : typeExt;
        m_strFileName = CString(title) + chosen;
        ext = tavik::lib::SafeExtension(chosen.str());
        if (title.empty()) title = "mail";
    } else {
        // The name as the message gives it, which may try to leave the directory.
        tavik::lib::SafeName safe = tavik::lib::MakeSafeName(m_strFileName.str());
        title = std::move(safe.title);
        ext = typeExt.IsEmpty() ? std::move(safe.extension) : tavik::lib::SafeExtension(typeExt.str());
    }
    CFile file;
    CString written = path;
    if (!path.IsEmpty()) {
        CFileException error;
        if (!file.Open(path, CFile::modeCreate | CFile::modeWrite | CFile::typeBinary | CFile::osOwnerOnly,
                       &error))
            AfxThrowFileException(error.m_cause, error.m_lOsError, path);
    } else {
        if (dir.empty()) AfxThrowFileException(CFileException::badPath, ERROR_PATH_NOT_FOUND, "");
        written = OpenOwnFile(file, dir, title, ext);
        if (m_pFileManager) m_pFileManager->AddTempFile(written);
        m_strOwnFile = written;
    }
    const std::vector<BYTE>& bytes = m_DecodedContent.vector();
    if (!bytes.empty()) file.Write(bytes.data(), static_cast<UINT>(bytes.size()));
    file.Close();
    return XString(written);
}

// Opens for writing dir + title + ext, or the first free numbered variant of it, without ever opening
// a file that exists unless this part created it; a generated name when every variant is taken.
CString CMimeHeader::OpenOwnFile(CFile& file, const std::string& dir, const std::string& title,
                                 const std::string& ext) {
    const UINT create = CFile::modeCreate | CFile::modeWrite | CFile::typeBinary | CFile::osOwnerOnly;
    for (int i = 0; i < kNameVariants; ++i) {
        std::string name = dir + title;
        if (i) name += '-' + std::to_string(i);
        const CString candidate(name + ext);
        const bool own = !m_strOwnFile.IsEmpty() && candidate == m_strOwnFile;
        CFileException error;
        if (file.Open(candidate, own ? create : create | CFile::osCreateNew, &error)) return candidate;
        if (error.m_lOsError != ERROR_FILE_EXISTS)
            AfxThrowFileException(error.m_cause, error.m_lOsError, candidate);
    }
    const std::string temp = newTempFile(dir);
    if (temp.empty()) AfxThrowFileException(CFileException::accessDenied, ERROR_FILE_EXISTS, dir.c_str());
    if (m_pFileManager) m_pFileManager->AddTempFile(temp.c_str());
    CFileException error;
    if (!file.Open(temp.c_str(), create, &error))
        AfxThrowFileException(error.m_cause, error.m_lOsError, temp.c_str());
    return CString(temp.c_str());
}
