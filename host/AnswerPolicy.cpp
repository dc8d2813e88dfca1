#include "host/AnswerPolicy.h"

#include "host/HeaderText.h"
#include "rules/CAutoResponderProfile.h"

namespace tavik::host {

namespace {

constexpr size_t kMaxReferences = 20;

std::string Lower(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return out;
}

std::string_view Trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

// The first word of a structured value: before any ';', comment or blank.
std::string Keyword(std::string_view value) {
    value = Trim(value);
    const size_t end = value.find_first_of(";( \t");
    return Lower(value.substr(0, end));
}

bool Contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}
bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}
bool EndsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Whether an address belongs to a mail system or a list robot rather than a person.
bool IsMachineAddress(std::string_view address) {
    const std::string local = Lower(address.substr(0, address.rfind('@')));
    for (const char* name : {"mailer-daemon", "listserv", "majordomo"})
        if (local == name) return true;
    for (const char* part : {"noreply", "no-reply", "no_reply", "donotreply", "do-not-reply", "do_not_reply"})
        if (Contains(local, part)) return true;
    return StartsWith(local, "owner-") || StartsWith(local, "bounce") || EndsWith(local, "-request") ||
           EndsWith(local, "-bounces");
}

bool IsOwn(std::string_view address, const std::vector<std::string>& ownAddresses) {
    const std::string wanted = Lower(Trim(address));
    for (const std::string& own : ownAddresses)
        if (!wanted.empty() && Lower(Trim(own)) == wanted) return true;
    return false;
}

// The "<...>" identifiers in a field value, in order; at most limit of them, and none longer than a line.
std::vector<std::string> MessageIds(std::string_view value, size_t limit = 1000) {
    std::vector<std::string> ids;
    for (size_t at = 0; ids.size() < limit;) {
        const size_t open = value.find('<', at);
        if (open == std::string_view::npos) break;
        const size_t close = value.find('>', open);
        if (close == std::string_view::npos) break;
        const std::string_view id = value.substr(open, close + 1 - open);
        bool clean = id.size() > 2 && id.size() <= 250;
        for (char c : id)
            if (static_cast<unsigned char>(c) <= 0x20 || static_cast<unsigned char>(c) >= 0x7F) clean = false;
        if (clean) ids.emplace_back(id);
        at = close + 1;
    }
    return ids;
}

std::string NoControls(std::string_view text) {
    std::string out(text);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    return out;
}

}  // namespace

AnswerDecision DecideAnswer(std::string_view header, const std::vector<std::string>& ownAddresses,
                            const CAutoResponderProfile* responder) {
    AnswerDecision d;
    const std::vector<HeaderField> fields = ParseHeaderFields(header);
    const auto refuse = [&](std::string why) {
        d.answer = false;
        d.recipient.clear();
        d.reason = std::move(why);
        return d;
    };
    if (const HeaderField* f = FindField(fields, "Auto-Submitted"); f && Keyword(f->value) != "no")
        return refuse("it is automatic (Auto-Submitted: " + NoControls(Trim(f->value)) + ")");
    if (const HeaderField* f = FindField(fields, "Precedence")) {
        const std::string precedence = Keyword(f->value);
        if (precedence == "bulk" || precedence == "list" || precedence == "junk")
            return refuse("it is bulk mail (Precedence: " + precedence + ")");
    }
    for (const char* list : {"List-Id", "List-Unsubscribe", "List-Post", "Mailing-List"})
        if (FindField(fields, list))
            return refuse(std::string("it comes from a mailing list (") + list + ")");
    if (const HeaderField* f = FindField(fields, "X-Auto-Response-Suppress")) {
        const std::string asked = Lower(f->value);
        if (Contains(asked, "all") || Contains(asked, "autoreply") || Contains(asked, "oof"))
            return refuse("it asks for no automatic answer (X-Auto-Response-Suppress)");
    }
    const HeaderField* from = FindField(fields, "From");
    const std::string sender = from ? FirstAddress(from->value) : std::string();
    if (const HeaderField* path = FindField(fields, "Return-Path")) {
        d.recipient = FirstAddress(path->value);
        if (d.recipient.empty()) return refuse("its return path is empty (a delivery report)");
    } else {
        d.recipient = sender;
    }
    if (d.recipient.empty()) return refuse("it names no sender to answer");
    if (IsMachineAddress(d.recipient))
        return refuse("it comes from a mail system (" + NoControls(d.recipient) + ")");
    if (!sender.empty() && IsMachineAddress(sender))
        return refuse("it comes from a mail system (" + NoControls(sender) + ")");
    if (IsOwn(d.recipient, ownAddresses)) return refuse("it comes from this account's own address");
    if (responder && AlreadyAnswered(*responder, d.recipient))
        return refuse("its sender was answered already in this period");
    d.answer = true;
    return d;
}

bool AlreadyAnswered(const CAutoResponderProfile& responder, std::string_view recipient) {
    return responder.SearchDuplicate(CString(Lower(Trim(recipient))));
}

void RecordAnswer(CAutoResponderProfile& responder, std::string_view recipient) {
    responder.AddDuplicate(CString(Lower(Trim(recipient))));
}

std::vector<HeaderLine> AnswerHeaders(std::string_view originalHeader) {
    std::vector<HeaderLine> lines = {{"Auto-Submitted", "auto-replied"}, {"X-Auto-Response-Suppress", "All"}};
    const std::vector<HeaderField> fields = ParseHeaderFields(originalHeader);
    const HeaderField* id = FindField(fields, "Message-ID");
    const std::vector<std::string> own = id ? MessageIds(id->value, 1) : std::vector<std::string>();
    if (own.empty()) return lines;
    lines.push_back({"In-Reply-To", own.front()});
    const HeaderField* earlier = FindField(fields, "References");
    if (!earlier) earlier = FindField(fields, "In-Reply-To");
    std::vector<std::string> chain = earlier ? MessageIds(earlier->value) : std::vector<std::string>();
    chain.push_back(own.front());
    if (chain.size() > kMaxReferences) chain.erase(chain.begin() + 1, chain.end() - (kMaxReferences - 1));
    std::string references;
    for (const std::string& ref : chain) references += (references.empty() ? "" : " ") + ref;
    lines.push_back({"References", references});
    return lines;
}

std::string FillSubjectTemplate(std::string_view subjectTemplate, std::string_view subject) {
    static constexpr std::string_view kMarker = "%subject%";
    std::string out;
    const std::string lower = Lower(subjectTemplate);
    size_t at = 0;
    for (size_t found; (found = lower.find(kMarker, at)) != std::string::npos; at = found + kMarker.size()) {
        out.append(subjectTemplate.substr(at, found - at));
        out.append(subject);
    }
    out.append(subjectTemplate.substr(at));
    return std::string(Trim(NoControls(out)));
}

ForwardDecision DecideForward(std::string_view header, const std::vector<std::string>& ownAddresses) {
    int marks = 0;
    for (const HeaderField& f : ParseHeaderFields(header)) {
        if (Lower(f.name) != Lower(kForwardMarkField)) continue;
        if (IsOwn(FirstAddress(f.value), ownAddresses))
            return {false, "this account has forwarded it before"};
        if (++marks >= kMaxForwards)
            return {false, "it has been forwarded " + std::to_string(marks) + " times"};
    }
    return {true, {}};
}

std::vector<HeaderLine> ForwardHeaders(std::string_view originalHeader, std::string_view accountAddress) {
    std::vector<HeaderLine> lines = {{"Auto-Submitted", "auto-generated"}};
    for (const HeaderField& f : ParseHeaderFields(originalHeader)) {
        if (Lower(f.name) != Lower(kForwardMarkField) || lines.size() > kMaxForwards) continue;
        const std::string address = FirstAddress(f.value);
        if (!address.empty()) lines.push_back({kForwardMarkField, NoControls(address)});
    }
    lines.push_back({kForwardMarkField, NoControls(Lower(Trim(accountAddress)))});
    return lines;
}

}  // namespace tavik::host
