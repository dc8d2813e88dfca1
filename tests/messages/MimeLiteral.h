// The MIME decoder's algorithm written out step by step with the text operations it is described in
// (first occurrences found in the whole text, removals repeated from the start, one replace pass per byte
// value), slow on purpose: the reference the decoder's renderings are compared with.
#pragma once

#include <list>
#include <vector>

#include "messages/CMimeDecoder.h"
#include "util/XString.h"

namespace tavik::test {

struct LiteralPart {
    XString header, content;
    CString type, charset, encoding, boundary, name;
};

struct LiteralScan {
    std::vector<LiteralPart> parts;
    std::list<CString> removals;
};

// The scan without generated file names (those depend on the temporary files made).
LiteralScan LiteralScanMessage(const XString& message);

// The 256 passes of the quoted-printable decoding, after the soft line breaks are removed.
XString LiteralQuotedPrintable(XString content);
void LiteralStripHtml(XString& text);

// What the renderings make of a scanned decoder's message, without changing the decoder. The HTML one
// asks the decoder's parts for their local files, as the rendering does.
XString LiteralReformatText(const CMimeDecoder& decoder);
XString LiteralReformatHtml(CMimeDecoder& decoder);

}  // namespace tavik::test
