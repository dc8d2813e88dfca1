// Taking a POP3 reply apart: the status line in front, the terminating "\r\n.\r\n" behind. Dot-stuffing is
// not undone: a line the server sent with a doubled leading dot keeps both dots.
#pragma once

#include <string>

namespace tavik::lib {

// With status: when the first "\r\n" lies after position 0, status becomes the text before it and the
// reply loses it (result true); otherwise status and reply's front stay as they were (false).
// Then, with or without status: when the first "\r\n.\r\n" of what is left lies after its position 0,
// the reply is cut there (the last line's own line end goes too).
// Spare capacity is released when it exceeds an eighth of the text (at least 4 KiB); below that a copy of
// a large message would cost more than the room it frees.
bool StripReply(std::string& reply, std::string* status);

}  // namespace tavik::lib
