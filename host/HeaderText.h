// Reading header fields the way rules and answers need them: the fields of a header block unfolded, their
// encoded words (RFC 2047) decoded into UTF-8, address lists split into mailboxes, and text folded so that
// letter case does not count. Writing goes the other way for the few header values a host composes.
//
// Nothing here throws or allocates beyond a small multiple of its input, whatever the input holds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace tavik::host {

struct HeaderField {
    std::string name;   // as written, without the colon
    std::string value;  // unfolded (line breaks removed, the blanks after them kept), trimmed, not decoded
};

// The fields of a header block, in order. Lines may end in CR LF or LF; a line that starts with a blank
// continues the field before it; the first empty line ends the block; lines without a colon are passed
// over.
std::vector<HeaderField> ParseHeaderFields(std::string_view header);
// The first field of that name (case ignored), or null.
const HeaderField* FindField(const std::vector<HeaderField>& fields, std::string_view name);

// Bytes as UTF-8: kept when they are UTF-8 already, else read as Windows-1252 (mail without a charset is
// mostly one or the other).
std::string TextToUtf8(std::string_view bytes);
// Bytes in the named charset as UTF-8. UTF-8, US-ASCII, ISO-8859-1, ISO-8859-15 and Windows-1252 are
// converted (the Latin ones as Windows-1252, as mail readers do); any other charset is taken as
// TextToUtf8 takes unmarked text. Malformed UTF-8 becomes U+FFFD.
std::string CharsetToUtf8(std::string_view bytes, std::string_view charset);

// A header value with its encoded words ("=?charset?B|Q?text?=") decoded, in UTF-8. Blanks between two
// encoded words go; text that only looks like an encoded word stays as written; the rest goes through
// TextToUtf8.
std::string DecodeHeaderValue(std::string_view value);
// The reverse for a value a host writes: printable ASCII stays as it is, anything else becomes UTF-8
// "B" encoded words of at most 75 characters, separated by blanks and never splitting a character.
std::string EncodeHeaderValue(std::string_view utf8);

// A parameter of a structured field value such as Content-Type or Content-Disposition ("name",
// "filename"), unquoted and decoded: RFC 2231 forms (name*=charset'lang'%XX..., and continuations
// name*0, name*1, ...) as well as encoded words. Empty when the value has none.
std::string HeaderParameter(std::string_view value, std::string_view name);

struct Mailbox {
    std::string display;  // the whole mailbox as written, decoded ("Ann Lee <ann@example.com>")
    std::string address;  // the bare address ("ann@example.com"); may be empty for a broken entry
};
// The mailboxes of an address list (From, To, Cc, Reply-To): split at commas outside quotes, comments and
// angle brackets; group names ("team: a@x, b@y;") are dropped, their members kept.
std::vector<Mailbox> ParseAddressList(std::string_view value);
// The address of the first mailbox in value, or empty.
std::string FirstAddress(std::string_view value);

// UTF-8 as code points (malformed parts become U+FFFD), and back.
std::u32string Utf8ToCodePoints(std::string_view utf8);
std::string CodePointsToUtf8(std::u32string_view text);
// Letter case of Latin, Greek and Cyrillic letters folded to small letters; every other code point is
// its own fold. UpperCase is its inverse on the same letters.
char32_t FoldCase(char32_t c);
char32_t UpperCase(char32_t c);
// UTF-8 text as folded code points: what case-blind comparisons compare.
std::u32string FoldedText(std::string_view utf8);

}  // namespace tavik::host
