// What keeps outgoing text from changing the shape of a message or of the SMTP dialogue: header values
// and envelope addresses stay on one line, body text has CRLF line ends only, and a body line holding a
// lone dot cannot end the data early.
#pragma once

#include <string>
#include <string_view>

namespace tavik::lib {

// The text as one line. A run of CR and LF characters followed by a space or a tab is removed (a folded
// header unfolds); any other run becomes one space. Text without CR or LF comes back unchanged.
std::string OneLine(std::string_view text);

// True when the text holds a CR not followed by LF or an LF not preceded by CR.
bool HasBareLineEnd(std::string_view text);
// Every CR not followed by LF, and every LF not preceded by CR, becomes CRLF; CRLF stays. Text without
// such line ends is left alone (no copy).
void CrlfLineEnds(std::string& text);

// True when DoubleLoneDots or CrlfLineEnds would change the text.
bool NeedsWireFixes(std::string_view text);

// Doubles the dot of every line that is a single dot followed by CRLF (a line of one dot at the very
// start included); a line that starts with a dot followed by other text stays as it is.
std::string DoubleLoneDots(std::string_view text);

}  // namespace tavik::lib
