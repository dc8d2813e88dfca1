// The generated mailbox that `tavik demo` serves: ordinary mail from friends, colleagues and lists, and
// junk of the usual kinds, with fixed dates so that every run shows the same table.
#pragma once

#include <string>
#include <vector>

namespace tavik::host {

struct SampleMessage {
    std::string text;  // whole message, CRLF line ends
    bool junk;
};

std::vector<SampleMessage> MakeSampleMailbox();

}  // namespace tavik::host
