#include "transport/CAppOctetStream.h"

#include <algorithm>
#include <memory>
#include <string>

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
    const ULONGLONG length = file.GetLength();
    if (length > kMaxFileSize) return 0;
    // Room for the whole part at once: a message of tens of megabytes is not copied again at every
    // doubling of its body.
    const size_t mark = destination.str().size();
    const size_t encoded = length / 3 * 4 + length / 54 * 2 + 8;
    destination.str().reserve(mark + encoded + encoded / 8 + 4096);
    destination += build_sub_header(content, parameters, encoding, 1);
    try {
        attach_file(&file, kBase64, destination);
    } catch (CFileException* e) {
        // A file that cannot be read leaves no half part behind.
        e->Delete();
        destination.str().resize(mark);
        return 0;
    }
    file.Close();
    return 1;
}

CString CAppOctetStream::build_sub_header(const char* content, const char* parameters, int encoding,
                                          int isPath) {
    char drive[_MAX_DRIVE], dir[_MAX_DIR], name[_MAX_FNAME], ext[_MAX_EXT];
    _splitpath(content ? content : "", drive, dir, name, ext);
    const std::string fileName = tavik::lib::OneLine(std::string(name) + ext);
    CString type = GetContentTypeString();
    CString fileParameter;
    if (isPath) {
        fileParameter.Format("; file=%s", fileName.c_str());
        FindContentType(ext, type);
    }
    CString header;
    header.Format("Content-Type: %s%s\r\n", tavik::lib::OneLine(type.str()).c_str(),
                  fileParameter.GetString());
    header += "Content-Transfer-Encoding: base64\r\n";
    header.AppendFormat("Content-Disposition: attachment; filename=%s\r\n", fileName.c_str());
    header += "\r\n";
    return header;
}

// Read and encoded a piece at a time, straight onto the end of destination: a file of tens of megabytes
// needs neither a copy of itself nor of its encoding. A piece is a whole number of output lines (54 bytes
// make one line of 72 characters), and the "=" the codec ends every encoding with is kept only at the
// end, so the text is the one a single Encode of the whole file gives.
void CAppOctetStream::attach_file(CStdioFile* file, int encoding, CString& destination) {
    if (encoding != kBase64) return;
    const ULONGLONG length = file->GetLength();
    std::unique_ptr<unsigned char[]> piece(new unsigned char[kReadPiece]);
    CBase64Coding codec;
    CString text;
    ULONGLONG done = 0;
    for (;;) {
        const UINT want = static_cast<UINT>(std::min<ULONGLONG>(kReadPiece, length - done));
        const UINT got = want > 0 ? file->Read(piece.get(), want) : 0;
        done += got;
        const bool last = got < want || done >= length;
        codec.Encode(piece.get(), text, static_cast<int>(got));
        if (!last) text.str().pop_back();
        destination += text;
        if (last) break;
    }
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
