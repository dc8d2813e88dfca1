#include "tests/messages/MimeLiteral.h"

#include "messages/CMailParser.h"
#include "platform/CException.h"

namespace tavik::test {
namespace {

void parseContent(LiteralPart& part, const XString& line) {
    const XString name = line.Element(0, ':');
    const int colon = line.Find(':');
    const XString value = colon < 0 ? XString() : line.Mid(colon + 1).Trim();
    if (name.CompareNoCase("Content-Type") == 0) {
        const int elements = value.Count(';') + 1;
        part.type = value.Element(0, ';');
        for (int i = 1; i < elements; ++i) {
            const XString element = value.Element(i, ';');
            const XString key = element.Element(0, '=');
            const int eq = element.Find('=');
            const XString data = eq < 0 ? XString() : element.Mid(eq + 1);
            if (key.CompareNoCase("charset") == 0) {
                part.charset = data;
            } else if (key.CompareNoCase("boundary") == 0) {
                part.boundary = data;
            } else if (key.CompareNoCase("name") == 0 || key.CompareNoCase("filename") == 0 ||
                       key.CompareNoCase("file") == 0) {
                part.name = data;
            }
        }
    } else if (name.CompareNoCase("Content-Transfer-Encoding") == 0) {
        part.encoding = value;
    }
}

void parseHeader(LiteralPart& part) {
    const XString& header = part.header;
    int pos = 0;
    for (;;) {
        const int at = header.NCFind("Content-", pos);
        if (at < 0) break;
        int end = header.Find("\r\n", at);
        while (end > 0 && header[end - 1] == ';') end = header.Find("\r\n", end + 2);
        XString field = end < 0 ? header.Mid(at) : header.Mid(at, end - at);
        for (char c : {'\t', ' ', '\n', '\r', '\v', '\f', '"'}) field = field.RemoveAll(c);
        parseContent(part, field);
        if (end < 0) break;
        pos = end;
    }
}

void parseMimeBlock(const XString& content, const CString& boundary, std::vector<LiteralPart>& out,
                    std::list<CString>& removals) {
    int pos = 0;
    while (!content.IsEmpty()) {
        const int at = content.Find(boundary, pos);
        if (at < 0) break;
        const int headerStart = at + boundary.GetLength();
        const int blank = content.NCFind("\r\n\r\n", headerStart);
        if (blank < 0) break;
        LiteralPart part;
        part.header = content.Mid(headerStart, blank - headerStart);
        const int start = blank + 4;
        int end = content.GetLength();
        if (start < content.GetLength()) {
            const int next = content.Find(boundary, start);
            if (next >= 0) end = next;
        }
        part.content = content.Mid(start, end - start);
        parseHeader(part);
        if (!part.type.IsEmpty()) out.push_back(part);
        pos = end;
        if (pos >= content.GetLength()) break;
    }
    removals.push_back(boundary);
}

void findMimeBlock(const XString& content, const CString& boundary, LiteralScan& scan) {
    std::vector<LiteralPart> local;
    parseMimeBlock(content, boundary, local, scan.removals);
    for (const LiteralPart& part : local) {
        scan.removals.push_back(part.header);
        if (!part.boundary.IsEmpty()) {
            findMimeBlock(part.content, part.boundary, scan);
        } else {
            scan.parts.push_back(part);
        }
    }
}

// The decoded bytes as the renderings read them: a C string.
XString decodedText(CMimeHeader& part) {
    const CString encoding = part.GetTransferEncoding();
    if (part.GetContent().IsEmpty()) return XString();
    if (encoding.CompareNoCase("base64") == 0 || XString(encoding).NCFind("uuencode") >= 0)
        return XString(part.GetDecodedContent());
    if (XString(encoding).NCFind("quoted-printable") >= 0)
        return XString(LiteralQuotedPrintable(part.GetContent()).GetString());
    return XString(part.GetContent().GetString());
}

XString cleanUp(XString text, const std::list<CString>& removals) {
    for (const CString& r : removals) text = text.RemoveAll(XString(r));
    for (const char* ending : {"--\r\n", "-- \r\n", "--  \r\n"}) text = text.RemoveAll(ending);
    return text;
}

const char kImage[] = "<br><center><img border=0 src=\"file://%LOCAL_FILE%\"></center><br>\r\n";
const char kAttachment[] =
    "<br><center><table border=\"0\"><tr><td bgcolor=\"#F4F4F4\" align=\"center\"><font face=\"verdana, "
    "arial, "
    "helvetica, sans-serif\" size=\"1\"><b>MIME ATTACHMENT</b></font></td><td bgcolor=\"#EEF5FB\"><font "
    "face=\"verdana, arial, helvetica, sans-serif\" size=\"1\"><A "
    "HREF=\"file://%LOCAL_FILE%\">%CONTENT_NAME%</A></font></td><td bgcolor=\"#F4F4F4\" "
    "align=\"center\"><font "
    "face=\"verdana, arial, helvetica, sans-serif\" "
    "size=\"1\">%CONTENT_TYPE%</font></td></tr></table></center>";

XString localFile(CMimeHeader& part) {
    try {
        return part.GetLocalFile(CString());
    } catch (CFileException* e) {
        e->Delete();
        return XString();
    }
}

XString attachment(CMimeHeader& part) {
    XString box(kAttachment);
    box.ReplaceAll(localFile(part), "%LOCAL_FILE%");
    box.ReplaceAll(XString(part.GetFileName()), "%CONTENT_NAME%");
    box.ReplaceAll(XString(part.GetContentType()), "%CONTENT_TYPE%");
    return box;
}

}  // namespace

LiteralScan LiteralScanMessage(const XString& message) {
    LiteralScan scan;
    const int at = message.Find("\r\n\r\n");
    if (at < 1) return scan;
    LiteralPart top;
    top.header = message.Left(at);
    top.content = message.Mid(at + 4);
    parseHeader(top);
    if (top.type.IsEmpty()) return scan;
    if (!top.boundary.IsEmpty()) {
        findMimeBlock(top.content, top.boundary, scan);
    } else {
        scan.parts.push_back(top);
    }
    return scan;
}

XString LiteralQuotedPrintable(XString content) {
    for (const char* softBreak : {" = \r\n", " =\r\n", "= \r\n", "=\r\n"})
        content.ReplaceAll(XString(), softBreak);
    for (int v = 0; v < 256; ++v) {
        CString escape;
        escape.Format("=%02X", v);
        content.ReplaceAll(XString(static_cast<char>(v), 1), XString(escape));
    }
    return content;
}

void LiteralStripHtml(XString& text) {
    for (;;) {
        const int open = text.Find('<');
        if (open < 0) return;
        const int close = text.Find('>', open);
        const int lineEnd = text.Find(">\r\n", open);
        if (close < 0 || lineEnd < 0) return;
        text = text.Remove(text.Mid(open, close - open + 1));
    }
}

XString LiteralReformatText(const CMimeDecoder& decoder) {
    if (decoder.m_listParts.empty()) return decoder.m_strMessage;
    CMailParser parser;
    if (!parser.ScanMail(decoder.m_strMessage)) return decoder.m_strMessage;
    XString text = parser.GetMsgBodyText();
    for (CMimeHeader part : decoder.m_listParts) {
        const XString type(part.GetContentType());
        if (type.NCFind("text/html") >= 0) {
            XString decoded = decodedText(part);
            LiteralStripHtml(decoded);
            text = text.Replace(decoded, part.GetContent());
        } else if (type.NCFind("text") >= 0) {
            text = text.Replace(decodedText(part), part.GetContent());
        } else {
            text = text.Remove(part.GetContent());
        }
    }
    return cleanUp(text, decoder.m_listRemove);
}

XString LiteralReformatHtml(CMimeDecoder& decoder) {
    if (decoder.m_listParts.empty()) return decoder.m_strMessage;
    CMailParser parser;
    if (!parser.ScanMail(decoder.m_strMessage)) return decoder.m_strMessage;
    XString text = parser.GetMsgBodyText();
    for (CMimeHeader& part : decoder.m_listParts) {
        const XString type(part.GetContentType());
        XString with;
        if (type.NCFind("html") >= 0) {
            with = attachment(part);
        } else if (type.NCFind("text") >= 0) {
            const XString decoded = decodedText(part);
            with = decoded.NCFind("<html>") >= 0 ? attachment(part) : decoded;
        } else if (type.NCFind("image") >= 0) {
            with = kImage;
            with.ReplaceAll(localFile(part), "%LOCAL_FILE%");
        } else {
            with = attachment(part);
        }
        text = text.Replace(with, part.GetContent());
    }
    return cleanUp(text, decoder.m_listRemove);
}

}  // namespace tavik::test
