#include "transport/CAppOctetStream.h"

#include <string>

#include "platform/CArray.h"
#include "platform/CException.h"
#include "platform/CStdioFile.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "transport/CBase64Coding.h"
#include "transport/internal/LineBreaks.h"

namespace {

constexpr int kBase64 = 4;
constexpr const char* kContentTypeRoot = "MIME\\Database\\Content Type";

}  // namespace

int CAppOctetStream::AppendPart(const char* content, const char* parameters, int encoding, int isPath,
                                CString& destination) {
    if (content == nullptr) return 0;
    CStdioFile file;
    if (!file.Open(content, CFile::modeRead | CFile::typeBinary | CFile::shareDenyWrite)) return 0;
    // Encoded into a text of its own first, so a file that cannot be read leaves no half part behind.
    CString encoded;
    try {
        if (file.GetLength() > kMaxFileSize) return 0;
        attach_file(&file, kBase64, encoded);
    } catch (CFileException* e) {
        e->Delete();
        return 0;
    }
    file.Close();
    destination += build_sub_header(content, parameters, encoding, 1);
    destination += encoded;
    return 1;
}

CString CAppOctetStream::build_sub_header(const char* content, const char* parameters, int encoding,
                                          int isPath) {
    char drive[_MAX_DRIVE], dir[_MAX_DIR], name[_MAX_FNAME], ext[_MAX_EXT];
    _splitpath(content ? content : "", drive, dir, name, ext);
    const std::string fileName = detail::OneLine(std::string(name) + ext);
    CString type = GetContentTypeString();
    CString fileParameter;
    if (isPath) {
        fileParameter.Format("; file=%s", fileName.c_str());
        FindContentType(ext, type);
    }
    CString header;
    header.Format("Content-Type: %s%s\r\n", detail::OneLine(type.str()).c_str(), fileParameter.GetString());
    header += "Content-Transfer-Encoding: base64\r\n";
    header.AppendFormat("Content-Disposition: attachment; filename=%s\r\n", fileName.c_str());
    header += "\r\n";
    return header;
}

void CAppOctetStream::attach_file(CStdioFile* file, int encoding, CString& destination) {
    if (encoding != kBase64) return;
    CByteArray bytes;
    bytes.SetSize(static_cast<int>(file->GetLength()));
    UINT got = bytes.IsEmpty() ? 0 : file->Read(bytes.GetData(), static_cast<UINT>(bytes.GetSize()));
    CString text;
    CBase64Coding().Encode(bytes.GetData(), text, static_cast<int>(got));
    destination += text;
    destination += "\r\n";
}

void CAppOctetStream::FindContentType(const CString& extension, CString& type) {
    HKEY root = nullptr;
    if (RegOpenKeyEx(HKEY_CLASSES_ROOT, kContentTypeRoot, 0, KEY_ALL_ACCESS, &root) != ERROR_SUCCESS) return;
    char subKey[1000];
    for (DWORD index = 0;; ++index) {
        DWORD length = sizeof subKey;
        if (RegEnumKeyEx(root, index, subKey, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            break;
        CString path;
        path.Format("%s\\%s", kContentTypeRoot, subKey);
        HKEY key = nullptr;
        if (RegOpenKeyEx(HKEY_CLASSES_ROOT, path, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) continue;
        char value[1000];
        DWORD size = sizeof value - 1;
        DWORD kind = 0;
        LONG read = RegQueryValueEx(key, "Extension", nullptr, &kind, reinterpret_cast<BYTE*>(value), &size);
        RegCloseKey(key);
        if (read != ERROR_SUCCESS) continue;
        value[size] = '\0';
        if (extension.CompareNoCase(value) == 0) {
            type = subKey;
            break;
        }
    }
    RegCloseKey(root);
}
