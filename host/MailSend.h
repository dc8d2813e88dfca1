// Sending one message as the host does it: compose it (a plain message, or a MIME message when files are
// attached), connect to the relay and run the transaction, showing the dialogue as it goes.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "host/ConnectionSecurity.h"

namespace tavik::host {

struct SendOptions {
    std::string server;
    int port = 0;  // 0: the port of the security chosen (25, 587 for STARTTLS, 465 for TLS)
    std::string from;
    std::vector<std::string> to;  // "address" or "Name <address>"
    std::string subject;
    std::string body;  // any line ends; sent with CRLF
    std::vector<std::string> attachments;
    int timeLimit = 30;  // seconds for each socket wait
    SecurityOptions security;
    std::string user;  // log in (AUTH) as this user, over TLS only; empty: no login
    std::string password;
};

// A recipient as given on the command line: "Name <address>" or a bare address, trimmed. False when a
// '<' has no '>' after it or the address is empty.
bool SplitRecipient(const std::string& text, std::string& address, std::string& name);

// Checks the options (recipients readable, attachments readable), then sends. The client's commands go
// to out as "> ..." (the message itself as its size, credentials as xxxxxxx), the server's replies as
// "< ..." the moment they arrive, and "* ..." says what TLS agreed once the connection is encrypted.
// Failures go to err as "tavik send: ...". Returns the exit code: 0 sent, 1 failed.
int RunMailSend(const SendOptions& options, FILE* out, FILE* err);

// Text with every line end (CR, LF or CRLF) made CRLF, as the library's mail classes expect.
std::string CrlfText(std::string_view text);

}  // namespace tavik::host
