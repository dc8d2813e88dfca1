// Taking a POP3 reply apart: the status line in front, the terminating "\r\n.\r\n" behind. Neither undoes
// dot-stuffing: a line the server sent with a doubled leading dot keeps both dots.
#pragma once

#include <string>

namespace detail {

// When the first "\r\n" lies after position 0, status becomes the text before it and reply the text
// after it, and the result is true; otherwise both are left as they were.
bool SplitStatusLine(std::string& reply, std::string& status);

// When the first "\r\n.\r\n" lies after position 0, cuts reply there (its own line end goes too).
void CutAtEndMark(std::string& reply);

}  // namespace detail
