// Answers and forwards that do no harm. An auto-responder never answers mail that is itself automatic,
// comes from a list or a mail system, has nowhere to go back to, or comes from the account itself, and
// answers each sender at most once per period (its duplicates list). A redirector never forwards a message
// that this account has forwarded already, so that two accounts forwarding to each other cannot loop.
//
// Everything here is a pure function of header text and addresses, apart from the duplicates list, which
// the auto-responder keeps (and empties when its period is over: "Daily" or "hourly").
#pragma once

#include <string>
#include <string_view>
#include <vector>

class CAutoResponderProfile;

namespace tavik::host {

struct HeaderLine {
    std::string name;
    std::string value;  // ready to write (ASCII)
};

struct AnswerDecision {
    bool answer = false;
    std::string recipient;  // the bare address an answer goes to (Return-Path, else From), when answer
    std::string reason;     // when not: why, as a phrase ("it comes from a mailing list (List-Id)")
};

// Whether an automatic answer may go to the message whose header this is. No answer when:
//   "Auto-Submitted" is anything but "no" (RFC 3834);
//   "Precedence" is bulk, list or junk;
//   "List-Id", "List-Unsubscribe", "List-Post" or "Mailing-List" is present;
//   "X-Auto-Response-Suppress" asks for none (All, AutoReply, OOF);
//   the return path is empty or "<>" (a bounce), or neither it nor From gives an address;
//   the recipient or the sender looks like a mail system: MAILER-DAEMON, LISTSERV, majordomo, owner-*,
//     *-request, *-bounces, bounce*, and any noreply / no-reply / donotreply / do-not-reply;
//   the recipient is one of ownAddresses (case ignored);
//   responder is given and has answered the recipient already in its current period.
AnswerDecision DecideAnswer(std::string_view header, const std::vector<std::string>& ownAddresses,
                            const CAutoResponderProfile* responder = nullptr);

// The responder's duplicates list, keyed by the recipient's bare address in small letters. Already-
// answered is false while the responder's "Ignore Duplicates" is set.
bool AlreadyAnswered(const CAutoResponderProfile& responder, std::string_view recipient);
void RecordAnswer(CAutoResponderProfile& responder, std::string_view recipient);

// The fields an answer carries besides From, To and Subject: "Auto-Submitted: auto-replied",
// "X-Auto-Response-Suppress: All", and when the original has a Message-ID, "In-Reply-To" with it and
// "References" (the original's References, or its In-Reply-To, then its Message-ID; at most 20
// identifiers, the first and the latest kept).
std::vector<HeaderLine> AnswerHeaders(std::string_view originalHeader);

// A subject template with every "%SUBJECT%" (letter case ignored) replaced by subject. Line ends and other
// control characters in either become blanks, so that no message can add header fields through its
// subject. UTF-8 in, UTF-8 out (EncodeHeaderValue makes it a header value).
std::string FillSubjectTemplate(std::string_view subjectTemplate, std::string_view subject);

// The field a forward carries, one per account that forwarded the message, with that account's address.
inline constexpr char kForwardMarkField[] = "X-Tavik-Forwarded-By";
// Past this many marks a message is not forwarded again, whoever forwarded it.
inline constexpr int kMaxForwards = 10;

struct ForwardDecision {
    bool forward = false;
    std::string reason;  // when not
};
// Whether this account (its addresses) may forward the message whose header this is: not when a mark
// names one of ownAddresses (case ignored), nor past kMaxForwards marks.
ForwardDecision DecideForward(std::string_view header, const std::vector<std::string>& ownAddresses);
// The fields a forward carries: "Auto-Submitted: auto-generated" (so that responders do not answer it)
// and the marks of the original followed by this account's own.
std::vector<HeaderLine> ForwardHeaders(std::string_view originalHeader, std::string_view accountAddress);

}  // namespace tavik::host
