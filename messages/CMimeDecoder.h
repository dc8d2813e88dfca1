// Decodes a cached message for display: splits it into its MIME parts, decodes their transfer
// encodings, writes non-text parts to temporary files, and rewrites the message text as plain text
// (ReformatText) or as an HTML fragment (ReformatHtml) in which images show inline and every other part,
// HTML bodies included, is a box linking to its local file. HTML mail is never rendered inline.
//
// Calling order: set m_strMessage (and m_pFileManager), ScanMessage, then one of the two renderings, then
// read m_strMessage. A message without a blank line, or whose top header has no Content-Type, gives no
// parts, and the renderings then leave the text as it is.
//
// Both renderings give exactly what the step-by-step algorithm gives (first occurrences replaced in the
// whole text, removals repeated from the start, 256 escape passes), at a cost linear in the message for
// any mail a person would send. A hostile message is bounded instead: see GetLimits.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "messages/CMimeHeader.h"
#include "platform/CString.h"
#include "util/XString.h"

class CFileManager;

class CMimeDecoder {
public:
    // Containers nested deeper than this are not walked; past this many parts the scan stops.
    static constexpr int kMaxDepth = 32;
    static constexpr int kMaxParts = 5000;
    // Why a scan or a rendering stopped short (GetLimits, bits).
    enum Limit : DWORD {
        LimitNone = 0,
        LimitDepth = 1,   // deeper containers left as they are, content and all
        LimitParts = 2,   // the parts after the first kMaxParts left as they are
        LimitRender = 4,  // a rendering's work bound was reached: later parts and removals not done
    };

    CMimeDecoder() = default;
    // Copy the message text, both lists and the file manager pointer.
    CMimeDecoder(const CMimeDecoder& other);
    CMimeDecoder& operator=(const CMimeDecoder& other);
    virtual ~CMimeDecoder() = default;

    // Splits the message into its parts; every part met is created with the file manager. Always false.
    bool ScanMessage();
    // The message text becomes the body as plain text: text parts decoded (HTML ones without their
    // tags), other parts removed, boundaries and part headers removed.
    void ReformatText();
    // The message text becomes the body as an HTML fragment (see above).
    void ReformatHtml();

    // Our addition: what the last scan and rendering left undone (Limit bits).
    DWORD GetLimits() const { return m_dwLimits; }

    XString m_strMessage;
    std::list<CMimeHeader> m_listParts;  // the leaf parts in message order
    std::list<CString> m_listRemove;     // texts removed from the output: every boundary and part header
    CFileManager* m_pFileManager = nullptr;

protected:
    void FindMimeBlock(XString& content, XString& boundary);
    void ParseMimeBlock(XString& content, XString& boundary, std::list<CMimeHeader>& parts);
    // Removes tags: the first '<' through the first '>' after it, again and again, while both that '>'
    // and a ">\r\n" follow the '<'.
    void StripHtml(XString& text);

private:
    struct Piece;
    void SplitBlock(std::string_view content, const CString& boundary, bool wholeParts,
                    std::list<Piece>& out);
    void WalkBlock(std::string_view content, const CString& boundary, int depth);
    template <class Render>
    void Reformat(Render&& render);

    DWORD m_dwLimits = LimitNone;
    int m_nParts = 0;
    std::shared_ptr<std::map<std::string, CString>> m_pExtensions;  // handed to the parts of a scan
};
