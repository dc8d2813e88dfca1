// A safe preview of one message, from a message file or from a record of a message store: its header
// fields, its plain-text rendering and its attachments, printed so that nothing in the message can drive
// the terminal; the HTML rendering written to a file beside the attachments it links to; attachments
// saved to a directory without replacing anything there.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tavik::host {

struct ShowOptions {
    std::string file;      // a message file (RFC 822 text), or a message store (compound file)
    std::string record;    // in a store: the record's path, as `tavik store tree` lists it
    std::string htmlFile;  // write the HTML rendering here (attachments into htmlFile + "_files/")
    std::string saveDir;   // save the attachments here
    bool raw = false;      // print the message's source instead
};

// Text as a terminal may show it, in UTF-8: CR LF and lone CR become LF; tab and LF stay; other control
// characters (C0, DEL, C1) become \xNN. A byte that does not start a UTF-8 sequence is a Windows-1252
// character (those it leaves undefined become \xNN too), so mail in either shows as written.
std::string TerminalText(std::string_view text);

// Prints what the options ask for to out; failures go to err as "tavik show: ...". A store without a
// record lists its messages instead. Returns the exit code: 0 shown, 1 failed.
int RunMessageShow(const ShowOptions& options, FILE* out, FILE* err);

}  // namespace tavik::host
