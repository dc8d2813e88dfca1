#include "messages/CMimeDecoder.h"

#include <cctype>
#include <string>
#include <vector>

#include "messages/internal/PartSubstitution.h"
#include "messages/internal/RemovalPasses.h"
#include "messages/internal/TextSearch.h"
#include "platform/CFile.h"

namespace {

const char kImageTemplate[] = "<br><center><img border=0 src=\"file://%LOCAL_FILE%\"></center><br>\r\n";
const char kAttachmentTemplate[] =
    "<br><center><table border=\"0\"><tr><td bgcolor=\"#F4F4F4\" align=\"center\"><font face=\"verdana, "
    "arial, helvetica, sans-serif\" size=\"1\"><b>MIME ATTACHMENT</b></font></td><td "
    "bgcolor=\"#EEF5FB\"><font face=\"verdana, arial, helvetica, sans-serif\" size=\"1\"><A "
    "HREF=\"file://%LOCAL_FILE%\">%CONTENT_NAME%</A></font></td><td bgcolor=\"#F4F4F4\" "
    "align=\"center\"><font face=\"verdana, arial, helvetica, sans-serif\" "
    "size=\"1\">%CONTENT_TYPE%</font></td></tr></table></center>";

// Renderings may spend this much work per byte of text on searches that ordinary mail never needs.
constexpr std::uint64_t kWorkPerByte = 32;
constexpr std::uint64_t kWorkFloor = 1u << 24;
// What a part's rendering may add to the text beyond its content, for sizing.
constexpr std::size_t kRenderedPartExtra = 1024;

XString localFile(CMimeHeader& part) {
    try {
        return part.GetLocalFile(CString());
    } catch (CFileException* e) {
        // The box still shows; its link leads nowhere.
        e->Delete();
        return XString();
    }
}

XString attachmentBox(CMimeHeader& part) {
    const XString path = localFile(part);
    XString box(kAttachmentTemplate);
    box.ReplaceAll(path, "%LOCAL_FILE%");
    box.ReplaceAll(XString(part.GetFileName()), "%CONTENT_NAME%");
    box.ReplaceAll(XString(part.GetContentType()), "%CONTENT_TYPE%");
    return box;
}

// The decoded bytes as a C string, without copying them; valid until the part decodes again.
std::string_view decodedText(CMimeHeader& part) {
    return std::string_view(reinterpret_cast<const char*>(part.GetDecodedContent()));
}

// ASCII letters, as XString::NCFind compares them.
bool containsNoCase(std::string_view text, std::string_view lowerWord) {
    for (std::size_t at = text.find(lowerWord[0]); at != std::string_view::npos;) {
        std::size_t i = 0;
        while (i < lowerWord.size() && at + i < text.size() &&
               (text[at + i] == lowerWord[i] || text[at + i] == std::toupper(lowerWord[i])))
            ++i;
        if (i == lowerWord.size()) return true;
        at = text.find(lowerWord[0], at + 1);
    }
    return false;
}

// Where the body starts, as CMailParser splits the text; npos when it would not.
std::size_t bodyStart(std::string_view text) {
    const std::size_t at = text.find("\r\n\r\n");
    return at == std::string_view::npos || at == 0 ? std::string_view::npos : at + 4;
}

}  // namespace

struct CMimeDecoder::Piece {
    CMimeHeader part;
    std::string_view content;
};

CMimeDecoder::CMimeDecoder(const CMimeDecoder& other) { *this = other; }

CMimeDecoder& CMimeDecoder::operator=(const CMimeDecoder& other) {
    if (this == &other) return *this;
    m_strMessage = other.m_strMessage;
    m_listParts = other.m_listParts;
    m_listRemove = other.m_listRemove;
    m_pFileManager = other.m_pFileManager;
    m_dwLimits = other.m_dwLimits;
    m_nParts = other.m_nParts;
    return *this;
}

bool CMimeDecoder::ScanMessage() {
    m_listParts.clear();
    m_listRemove.clear();
    m_dwLimits = LimitNone;
    m_nParts = 0;
    const std::string_view message(m_strMessage.str());
    const std::size_t start = bodyStart(message);
    if (start == std::string_view::npos) return false;
    m_pExtensions = std::make_shared<std::map<std::string, CString>>();
    CMimeHeader top;
    top.SetFileManager(m_pFileManager);
    top.m_pExtensions = m_pExtensions;
    top.InitializeHeader(message.substr(0, start - 4));
    if (top.m_strContentType.IsEmpty()) return false;
    if (top.HasBoundary()) {
        // The message text stays as it is while the walk reads it.
        WalkBlock(message.substr(start), top.m_strBoundary, 1);
    } else {
        top.m_strContent = XString(CString(message.substr(start)));
        m_listParts.push_back(std::move(top));
    }
    return false;
}

void CMimeDecoder::FindMimeBlock(XString& content, XString& boundary) {
    WalkBlock(content.str(), boundary, 1);
}

void CMimeDecoder::ParseMimeBlock(XString& content, XString& boundary, std::list<CMimeHeader>& parts) {
    std::list<Piece> pieces;
    SplitBlock(content.str(), boundary, true, pieces);
    for (Piece& piece : pieces) parts.push_back(std::move(piece.part));
}

// Walking with views into the body: a container's content is never copied, only its leaves are, so
// nesting costs no memory beyond the message.
void CMimeDecoder::WalkBlock(std::string_view content, const CString& boundary, int depth) {
    std::list<Piece> pieces;
    SplitBlock(content, boundary, false, pieces);
    for (Piece& piece : pieces) {
        m_listRemove.push_back(piece.part.m_strHeader);
        if (!piece.part.HasBoundary()) {
            m_listParts.push_back(std::move(piece.part));
        } else if (depth >= kMaxDepth) {
            m_dwLimits |= LimitDepth;
        } else {
            WalkBlock(piece.content, piece.part.m_strBoundary, depth + 1);
        }
    }
}

// Boundary searches are exact; a part runs from after its header's blank line to the next boundary, so
// it keeps the line end and the two hyphens of the delimiter that follows it.
void CMimeDecoder::SplitBlock(std::string_view content, const CString& boundary, bool wholeParts,
                              std::list<Piece>& out) {
    constexpr auto npos = std::string_view::npos;
    // Searched as a C string (up to a zero byte it may hold), stepped over at its whole length.
    const std::string_view whole(boundary.str());
    const std::string_view mark = whole.substr(0, whole.find('\0'));
    std::size_t pos = 0;
    while (!content.empty()) {
        const std::size_t at = tavik::lib::FindText(content, mark, pos);
        if (at == npos) break;
        const std::size_t headerStart = at + whole.size();
        const std::size_t blank = tavik::lib::FindText(content, "\r\n\r\n", headerStart);
        if (blank == npos) break;
        const std::size_t start = blank + 4;
        std::size_t end = content.size();
        if (start < content.size()) {
            const std::size_t next = tavik::lib::FindText(content, mark, start);
            if (next != npos) end = next;
        }
        if (m_nParts >= kMaxParts) {
            m_dwLimits |= LimitParts;
            break;
        }
        ++m_nParts;
        Piece piece;
        piece.part.SetFileManager(m_pFileManager);
        piece.part.m_pExtensions = m_pExtensions;
        const std::string_view header = content.substr(headerStart, blank - headerStart);
        piece.content = content.substr(start, end - start);
        if (wholeParts) {
            XString headerText{CString(header)}, partContent{CString(piece.content)};
            piece.part.Initialize(headerText, partContent);
        } else {
            piece.part.InitializeHeader(header);
            if (!piece.part.HasBoundary()) piece.part.m_strContent = XString(CString(piece.content));
        }
        if (!piece.part.m_strContentType.IsEmpty()) out.push_back(std::move(piece));
        pos = end;
        if (pos >= content.size()) break;
    }
    m_listRemove.push_back(boundary);
}

void CMimeDecoder::StripHtml(XString& text) {
    // Each removal leaves nothing before the next '<' that a later search could see, so one pass from
    // left to right does it; the ">\r\n" found last still answers while it lies after the next '<'.
    constexpr auto npos = std::string::npos;
    const std::string& s = text.str();
    std::string out;
    std::size_t from = 0, lineEnd = 0;
    bool looked = false;
    for (;;) {
        const std::size_t open = s.find('<', from);
        if (open == npos) break;
        const std::size_t close = s.find('>', open);
        if (close == npos) break;
        if (!looked || lineEnd < open) {
            lineEnd = s.find(">\r\n", open);
            looked = true;
        }
        if (lineEnd == npos) break;
        out.append(s, from, open - from);
        from = close + 1;
    }
    if (from == 0) return;
    out.append(s, from, npos);
    text = XString(CString(std::move(out)));
}

template <class Render>
void CMimeDecoder::Reformat(Render&& render) {
    if (m_listParts.empty()) return;
    const std::string_view message(m_strMessage.str());
    const std::size_t start = bodyStart(message);
    if (start == std::string_view::npos) return;
    const std::string_view body = message.substr(start);
    m_dwLimits &= ~static_cast<DWORD>(LimitRender);
    const std::size_t expected = body.size() + m_listParts.size() * kRenderedPartExtra;
    tavik::lib::WorkBudget budget(kWorkPerByte * expected + kWorkFloor);
    tavik::lib::PartSubstitution text(body, expected, budget);
    XString storage;
    for (CMimeHeader& part : m_listParts) {
        const std::string_view with = render(part, storage);
        if (!text.Replace(part.m_strContent.str(), with)) break;
    }
    std::string result = text.Take();
    std::vector<std::string_view> removals;
    for (const CString& r : m_listRemove) removals.push_back(r.str());
    for (const char* ending : {"--\r\n", "-- \r\n", "--  \r\n"}) removals.push_back(ending);
    tavik::lib::RemoveEachInTurn(result, removals, budget);
    if (budget.Exhausted()) m_dwLimits |= LimitRender;
    m_strMessage = XString(CString(std::move(result)));
}

void CMimeDecoder::ReformatText() {
    Reformat([this](CMimeHeader& part, XString& storage) -> std::string_view {
        const XString type(part.GetContentType());
        if (type.NCFind("text/html") >= 0) {
            storage = XString(part.GetDecodedContent());
            StripHtml(storage);
            return storage.str();
        }
        if (type.NCFind("text") >= 0) return decodedText(part);
        return {};
    });
}

void CMimeDecoder::ReformatHtml() {
    Reformat([](CMimeHeader& part, XString& storage) -> std::string_view {
        const XString type(part.GetContentType());
        if (type.NCFind("html") >= 0) {
            storage = attachmentBox(part);
        } else if (type.NCFind("text") >= 0) {
            const std::string_view text = decodedText(part);
            if (!containsNoCase(text, "<html>")) return text;
            storage = attachmentBox(part);
        } else if (type.NCFind("image") >= 0) {
            storage = kImageTemplate;
            storage.ReplaceAll(localFile(part), "%LOCAL_FILE%");
        } else {
            storage = attachmentBox(part);
        }
        return storage.str();
    });
}
