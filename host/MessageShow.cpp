#include "host/MessageShow.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "messages/CMessageList.h"
#include "messages/CMimeDecoder.h"
#include "platform/CException.h"
#include "platform/CFile.h"
#include "platform/FileSystem.h"
#include "platform/OleStorage.h"
#include "platform/Unicode.h"
#include "util/CFileManager.h"

namespace tavik::host {

namespace {

namespace fs = std::filesystem;

constexpr unsigned char kCompoundSignature[8] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};

struct Failure {
    std::string message;
};

std::string Escape(unsigned char c) {
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02x", c);
    return text;
}

// The length of the UTF-8 sequence at text[i] and its code point; 0 when there is none.
std::size_t Utf8At(std::string_view text, std::size_t i, char32_t& code) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t n = lead >= 0xF0 && lead <= 0xF4 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 && lead < 0xE0 ? 2 : 0;
    if (n == 0 || i + n > text.size()) return 0;
    code = lead & (0x7F >> n);
    for (std::size_t k = 1; k < n; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        code = code << 6 | (byte(i + k) & 0x3F);
    }
    const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[n] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return n;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Failure{"cannot open " + path};
    std::ostringstream bytes;
    bytes << in.rdbuf();
    if (in.bad()) throw Failure{"cannot read " + path};
    return bytes.str();
}

// A message saved with bare line ends gets back the CR LF that mail has on the wire.
std::string WireLineEnds(std::string text) {
    if (text.find("\r\n") != std::string::npos) return text;
    std::string out;
    out.reserve(text.size() + text.size() / 32);
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

struct RootStorage {
    IStorage* p = nullptr;
    ~RootStorage() {
        if (p) p->Release();
    }
};

// The record's text: the message as fetched when the body is there, else the cached header.
std::string RecordText(CMessageList& record, bool& bodyMissing) {
    CString body;
    bodyMissing = !record.GetBody(body);
    if (!bodyMissing) return body.str();
    return record.GetHeader().str() + "\r\n\r\n";
}

// Transacted and never committed: a record's load opens its storage for writing (and creates it when
// missing), and none of that may reach the file.
void OpenStore(const std::string& file, RootStorage& root) {
    HRESULT hr = StgOpenStorage(
        file.c_str(), nullptr, STGM_READWRITE | STGM_SHARE_DENY_WRITE | STGM_TRANSACTED, nullptr, 0, &root.p);
    if (FAILED(hr)) {
        char code[16];
        std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(hr));
        throw Failure{file + ": cannot open the store (error " + std::string(code) + ")"};
    }
}

// The storage at the path's parent and the record's name.
IStorage* OpenParent(IStorage* root, const std::string& path, std::string& name,
                     std::vector<std::unique_ptr<IStorage, void (*)(IStorage*)>>& held) {
    std::vector<std::string> parts;
    for (std::size_t start = 0; start <= path.size();) {
        std::size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    if (parts.empty()) throw Failure{"no record named"};
    name = parts.back();
    IStorage* parent = root;
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        IStorage* sub = nullptr;
        std::u16string wide = AnsiToWide(parts[i]);
        if (FAILED(parent->OpenStorage(reinterpret_cast<const OLECHAR*>(wide.c_str()), nullptr,
                                       STGM_READWRITE | STGM_SHARE_EXCLUSIVE, nullptr, 0, &sub)))
            throw Failure{"no storage " + parts[i] + " in the store"};
        held.emplace_back(sub, [](IStorage* s) { s->Release(); });
        parent = sub;
    }
    return parent;
}

void ListStore(IStorage* root, FILE* out) {
    IEnumSTATSTG* en = nullptr;
    if (FAILED(root->EnumElements(0, nullptr, 0, &en))) throw Failure{"cannot list the store"};
    STATSTG st;
    ULONG got = 0;
    int count = 0;
    while (en->Next(1, &st, &got) == S_OK) {
        const std::string name = WideToAnsi(reinterpret_cast<const char16_t*>(st.pwcsName));
        const bool storage = st.type == STGTY_STORAGE;
        CoTaskMemFree(st.pwcsName);
        if (!storage) continue;
        CMessageList record(root);
        record.LoadMessage(root, CString(name), nullptr);
        if (record.GetMsgSize() == 0) continue;
        std::fprintf(out, "%s  %10lu  %s  %s\n", TerminalText(name).c_str(),
                     static_cast<unsigned long>(record.GetID()),
                     TerminalText(record.GetSenderName().str()).c_str(),
                     TerminalText(record.GetSubject().str()).c_str());
        ++count;
    }
    en->Release();
    std::fprintf(out, "%d message%s\n", count, count == 1 ? "" : "s");
}

// What the text rendering leaves out: the parts that are not text.
bool IsAttachment(CMimeHeader& part) { return XString(part.GetContentType()).NCFind("text") < 0; }

std::size_t DecodedSize(CMimeHeader& part) {
    part.GetDecodedContent();
    const std::size_t n = part.GetDecodedBytes().vector().size();
    return n ? n - 1 : 0;
}

// The text without blank lines at its ends, and one blank line where the removed parts and part headers
// left several; ends with a line end unless empty.
std::string Paragraphs(const std::string& text) {
    std::string out;
    std::size_t newlines = 0;
    for (char c : text) {
        if (c == '\n') {
            ++newlines;
            continue;
        }
        if (!out.empty()) out.append(std::min<std::size_t>(newlines, 2), '\n');
        newlines = 0;
        out += c;
    }
    if (!out.empty()) out += '\n';
    return out;
}

void PrintField(FILE* out, const char* name, const CString& value) {
    if (!value.IsEmpty()) std::fprintf(out, "%-9s%s\n", name, TerminalText(value.str()).c_str());
}

// Sets TMPDIR while it lives, where the decoder writes its files.
class TemporaryDirectory {
public:
    explicit TemporaryDirectory(const std::string& dir) {
        const char* old = std::getenv("TMPDIR");
        m_had = old != nullptr;
        if (old) m_old = old;
        setenv("TMPDIR", dir.c_str(), 1);
    }
    ~TemporaryDirectory() {
        if (m_had) {
            setenv("TMPDIR", m_old.c_str(), 1);
        } else {
            unsetenv("TMPDIR");
        }
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

private:
    bool m_had = false;
    std::string m_old;
};

std::string HtmlEscape(std::string_view text) {
    std::string out;
    for (char c : text) {
        switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

// The HTML rendering as a page whose attachments lie in a new directory beside it; the page may load
// nothing but those files and runs no script.
// Where --html and --save-attachments write, checked before anything is shown.
void CheckTargets(const ShowOptions& o) {
    std::error_code ec;
    if (!o.saveDir.empty() && !fs::is_directory(o.saveDir, ec))
        throw Failure{o.saveDir + " is not a directory"};
    if (o.htmlFile.empty()) return;
    const fs::path dir = o.htmlFile + "_files";
    if (fs::exists(dir, ec) && !fs::is_empty(dir, ec))
        throw Failure{dir.string() + " exists and is not empty: remove it or name another file"};
}

void WriteHtml(const std::string& message, const std::string& subject, const std::string& file, FILE* out) {
    const fs::path dir = file + "_files";
    std::error_code ec;
    // Again here: the clean-up below removes what the page does not link to.
    if (fs::exists(dir, ec) && !fs::is_empty(dir, ec))
        throw Failure{dir.string() + " exists and is not empty: remove it or name another file"};
    fs::create_directories(dir, ec);
    if (ec) throw Failure{"cannot create " + dir.string() + ": " + ec.message()};
    fs::permissions(dir, fs::perms::owner_all, ec);
    const fs::path absolute = fs::absolute(dir);
    const std::string where = absolute.string() + "/";
    std::string fragment;
    {
        TemporaryDirectory temp(where);
        CMimeDecoder decoder;
        decoder.m_strMessage = XString(CString(message));
        decoder.ScanMessage();
        decoder.ReformatHtml();
        fragment = decoder.m_strMessage.str();
    }
    // The decoder's empty placeholder files are of no use to the page.
    int kept = 0;
    for (const auto& entry : fs::directory_iterator(absolute, ec)) {
        if (fragment.find("file://" + entry.path().string()) == std::string::npos) {
            fs::remove(entry.path(), ec);
        } else {
            ++kept;
        }
    }
    std::ofstream page(file, std::ios::binary | std::ios::trunc);
    page << "<!DOCTYPE html>\n<html><head>\n"
         << "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src file:; "
            "style-src 'unsafe-inline'\">\n"
         << "<title>" << HtmlEscape(TerminalText(subject)) << "</title></head><body>\n"
         << fragment << "\n</body></html>\n";
    page.close();
    if (!page) throw Failure{"cannot write " + file};
    std::fprintf(out, "HTML written to %s", TerminalText(file).c_str());
    if (kept)
        std::fprintf(out, ", %d attachment%s in %s", kept, kept == 1 ? "" : "s", TerminalText(where).c_str());
    std::fprintf(out, "\n");
}

// Exactly the decoded bytes, under the part's cleaned name, never over an existing file.
std::string SaveAttachment(CMimeHeader& part, const std::string& dir, int index) {
    std::string name = part.GetSafeFileName().str();
    if (name.empty()) name = "attachment-" + std::to_string(index);
    part.GetDecodedContent();
    const std::vector<BYTE>& bytes = part.GetDecodedBytes().vector();
    const std::size_t size = bytes.empty() ? 0 : bytes.size() - 1;
    const std::size_t dot = name.rfind('.');
    const std::string title = dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
    const std::string ext = dot == std::string::npos || dot == 0 ? "" : name.substr(dot);
    for (int i = 0; i < 1000; ++i) {
        std::string path = dir + "/" + title;
        if (i) path += '-' + std::to_string(i);
        path += ext;
        CFile file;
        CFileException error;
        if (!file.Open(path.c_str(),
                       CFile::modeCreate | CFile::modeWrite | CFile::osCreateNew | CFile::osOwnerOnly,
                       &error)) {
            if (error.m_lOsError == ERROR_FILE_EXISTS) continue;
            throw Failure{"cannot create " + path};
        }
        try {
            if (size) file.Write(bytes.data(), static_cast<UINT>(size));
            file.Close();
        } catch (CFileException* e) {
            e->Delete();
            throw Failure{"cannot write " + path};
        }
        return path;
    }
    throw Failure{"no free name for " + name + " in " + dir};
}

int Show(const ShowOptions& o, FILE* out) {
    CheckTargets(o);
    std::string text = ReadWholeFile(o.file);
    const bool store = text.size() >= 8 && std::equal(kCompoundSignature, kCompoundSignature + 8,
                                                      reinterpret_cast<const unsigned char*>(text.data()));
    bool bodyMissing = false;
    CMessageList record;
    if (store) {
        RootStorage root;
        OpenStore(o.file, root);
        if (o.record.empty()) {
            if (!o.htmlFile.empty() || !o.saveDir.empty() || o.raw)
                throw Failure{"name a record of the store (the list below) to show it"};
            ListStore(root.p, out);
            return 0;
        }
        std::vector<std::unique_ptr<IStorage, void (*)(IStorage*)>> held;
        std::string name;
        IStorage* parent = OpenParent(root.p, o.record, name, held);
        CMessageList stored(parent);
        stored.LoadMessage(parent, CString(name), nullptr);
        if (stored.GetMsgSize() == 0) throw Failure{"no message " + o.record + " in " + o.file};
        text = RecordText(stored, bodyMissing);
    } else {
        if (!o.record.empty())
            throw Failure{o.file + " is a message file, not a store: it holds one message"};
        text = WireLineEnds(std::move(text));
    }
    if (o.raw) {
        std::fputs(TerminalText(text).c_str(), out);
        return 0;
    }

    CFileManager files;  // the decoder's placeholder files, removed when it goes
    CMimeDecoder decoder;
    decoder.m_pFileManager = &files;
    decoder.m_strMessage = XString(CString(text));
    decoder.ScanMessage();
    const std::size_t blank = text.find("\r\n\r\n");
    record.SetData(CString(text.substr(0, blank)), 0, static_cast<DWORD>(text.size()), MsgReceived);
    PrintField(out, "From:", record.GetSenderName());
    PrintField(out, "To:", record.GetReciepient());
    PrintField(out, "Date:", record.GetMessageDate());
    PrintField(out, "Subject:", record.GetSubject());
    std::fprintf(out, "\n");

    CMimeDecoder plain(decoder);
    plain.ReformatText();
    std::string body = plain.m_listParts.empty() ? (blank == std::string::npos ? "" : text.substr(blank + 4))
                                                 : plain.m_strMessage.str();
    if (bodyMissing) body = "(the body of this message has not been fetched)\n";
    std::fputs(Paragraphs(TerminalText(body)).c_str(), out);
    if (decoder.GetLimits() != 0 || plain.GetLimits() != 0)
        std::fprintf(
            out, "\n(the message is nested too deeply or has too many parts; the rest is shown as it is)\n");

    std::vector<CMimeHeader*> attachments;
    for (CMimeHeader& part : decoder.m_listParts) {
        if (IsAttachment(part)) attachments.push_back(&part);
    }
    if (!attachments.empty()) {
        std::fprintf(out, "\nAttachments:\n");
        for (CMimeHeader* part : attachments) {
            std::fprintf(out, "  %s  %s  %zu bytes\n", TerminalText(part->GetFileName().str()).c_str(),
                         TerminalText(part->GetContentType().str()).c_str(), DecodedSize(*part));
        }
    }
    if (!o.saveDir.empty()) {
        int index = 0;
        for (CMimeHeader* part : attachments) {
            std::fprintf(out, "saved %s\n", TerminalText(SaveAttachment(*part, o.saveDir, ++index)).c_str());
        }
    }
    if (!o.htmlFile.empty()) WriteHtml(text, record.GetSubject().str(), o.htmlFile, out);
    return 0;
}

}  // namespace

std::string TerminalText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        char32_t code = 0;
        if (c == '\r') {
            out += '\n';
            if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else if (c == '\n' || c == '\t' || (c >= 0x20 && c < 0x7F)) {
            out += static_cast<char>(c);
        } else if (c < 0x80) {
            out += Escape(c);
        } else if (const std::size_t n = Utf8At(text, i, code)) {
            if (code < 0xA0) {
                for (std::size_t k = 0; k < n; ++k) out += Escape(static_cast<unsigned char>(text[i + k]));
            } else {
                out.append(text.substr(i, n));
            }
            i += n - 1;
        } else {
            // Not UTF-8 here: a Windows-1252 character. The bytes it leaves undefined come back as C1
            // controls.
            const std::u16string wide = AnsiToWide(text.substr(i, 1));
            const char16_t w = wide.empty() ? 0 : wide[0];
            if (w < 0xA0) {
                out += Escape(c);
            } else {
                out += TavikWideToUtf8(wide);
            }
        }
    }
    return out;
}

int RunMessageShow(const ShowOptions& options, FILE* out, FILE* err) {
    try {
        return Show(options, out);
    } catch (const Failure& f) {
        std::fprintf(err, "tavik show: %s\n", f.message.c_str());
        return 1;
    }
}

}  // namespace tavik::host
