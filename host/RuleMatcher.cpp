#include "host/RuleMatcher.h"

#include <algorithm>

#include "host/HeaderText.h"
#include "messages/CMessageList.h"
#include "messages/CMimeDecoder.h"
#include "platform/CArray.h"
#include "rules/CBaseFilter.h"
#include "util/CFileManager.h"

namespace tavik::host {

namespace {

constexpr size_t kMaxObjectLength = 1000;  // characters: what a rule compares with
// One budget for all the values of one message (a message may carry dozens of Received lines).
constexpr uint64_t kSearchBudget = BoundedRegex::kDefaultBudget;

std::string_view TrimBlanks(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

bool SameWord(std::string_view a, std::string_view b) {
    a = TrimBlanks(a);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

// "100", "100K", "100 KB", "2M", "2 MB" (K and M are 1024 and 1024 x 1024); nothing else.
std::optional<uint64_t> ParseSize(std::string_view text) {
    text = TrimBlanks(text);
    uint64_t value = 0;
    size_t i = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + static_cast<uint64_t>(text[i] - '0');
        if (value > (uint64_t{1} << 40)) return std::nullopt;
    }
    if (i == 0) return std::nullopt;
    std::string_view unit = TrimBlanks(text.substr(i));
    if (unit.empty()) return value;
    if (SameWord(unit, "k") || SameWord(unit, "kb")) return value * 1024;
    if (SameWord(unit, "m") || SameWord(unit, "mb")) return value * 1024 * 1024;
    return std::nullopt;
}

std::vector<MatchMessage::Value> TextValues(const std::vector<std::string>& texts) {
    std::vector<MatchMessage::Value> values;
    for (const std::string& t : texts) values.push_back({FoldedText(t), {}});
    return values;
}

std::vector<MatchMessage::Value> MailboxValues(const std::vector<std::string>& rawLists) {
    std::vector<MatchMessage::Value> values;
    for (const std::string& raw : rawLists)
        for (const Mailbox& box : ParseAddressList(raw))
            values.push_back({FoldedText(box.display), FoldedText(box.address)});
    return values;
}

bool IsMultipart(std::string_view contentType) {
    const std::u32string folded = FoldedText(TrimBlanks(contentType));
    return folded.rfind(U"multipart/", 0) == 0;
}

// The attachment a part (or a whole single-part message) is, from its header fields: its file name, else
// its content type. Empty when it is text meant to be read.
std::string AttachmentOf(const std::vector<HeaderField>& fields) {
    const HeaderField* type = FindField(fields, "Content-Type");
    const HeaderField* disposition = FindField(fields, "Content-Disposition");
    std::string name;
    if (disposition) name = HeaderParameter(disposition->value, "filename");
    if (name.empty() && type) name = HeaderParameter(type->value, "name");
    const std::string mime =
        type ? std::string(TrimBlanks(type->value.substr(0, type->value.find(';')))) : "";
    const std::u32string foldedMime = FoldedText(mime);
    const bool attached =
        disposition && FoldedText(TrimBlanks(disposition->value)).rfind(U"attachment", 0) == 0;
    const bool text = mime.empty() || foldedMime.rfind(U"text/", 0) == 0 ||
                      foldedMime.rfind(U"multipart/", 0) == 0 || foldedMime.rfind(U"message/", 0) == 0;
    if (!attached && text && name.empty()) return {};
    return name.empty() ? CodePointsToUtf8(foldedMime) : name;
}

// Body text with line ends as LF, so that ^ and $ see lines.
std::string WithLineFeeds(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') {
            out += '\n';
            if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

// --- the vocabulary

const std::vector<VocabularyEntry>& MailTagWords() {
    static const std::vector<VocabularyEntry> words = {
        {"Header", "each header line, as \"Name: value\""},
        {"Body", "the text of the message, decoded (fetched only for rules that need it)"},
        {"From",
         "each sender mailbox (\"Ann Lee <ann@example.com>\"; equals and starts/ends with also "
         "try the bare address)"},
        {"To", "each recipient mailbox of the To fields (as From)"},
        {"Cc", "each recipient mailbox of the Cc fields (as From)"},
        {"Subject", "the subject"},
        {"Reply-To", "each Reply-To mailbox, or the sender's when there is none (as From)"},
        {"Received", "each Received line"},
        {"Message-ID", "the message identifier"},
        {"Size", "the size in bytes on the server (a number; K and M for 1024 and 1024 x 1024)"},
        {"Attachment", "each attachment's file name, or its content type when it has no name"},
    };
    return words;
}

const std::vector<VocabularyEntry>& MatchActionWords() {
    static const std::vector<VocabularyEntry> words = {
        {"contains", "a value contains the object"},
        {"does not contain", "no value contains the object (also true when the field is missing)"},
        {"equals", "a value is the object (Size: the size is that number)"},
        {"starts with", "a value starts with the object"},
        {"ends with", "a value ends with the object"},
        {"matches", "the regular expression in the object is found in a value"},
        {"greater than", "Size only: the size is above the number"},
        {"less than", "Size only: the size is below the number"},
    };
    return words;
}

std::optional<MailTag> ParseMailTag(std::string_view word) {
    const auto& words = MailTagWords();
    for (size_t i = 0; i < words.size(); ++i)
        if (SameWord(word, words[i].word)) return static_cast<MailTag>(i);
    return std::nullopt;
}

std::optional<MatchAction> ParseMatchAction(std::string_view word) {
    const auto& words = MatchActionWords();
    for (size_t i = 0; i < words.size(); ++i)
        if (SameWord(word, words[i].word)) return static_cast<MatchAction>(i);
    return std::nullopt;
}

std::string RulesHelpText() {
    std::string text =
        "Rules: how spam shields, redirectors and auto-responders pick messages\n\n"
        "A rule's condition has three parts: \"Mail Tag\" says where to look, \"Action\" how to compare,\n"
        "\"Object\" what with. Letter case is ignored everywhere, in the words and in the comparison;\n"
        "header values are compared decoded (=?charset?...?= words become their text).\n\n"
        "Mail Tag:\n";
    for (const VocabularyEntry& e : MailTagWords())
        text += "  " + std::string(e.word) +
                std::string(12 - std::min<size_t>(11, std::string_view(e.word).size()), ' ') + e.meaning +
                "\n";
    text += "\nAction:\n";
    for (const VocabularyEntry& e : MatchActionWords())
        text += "  " + std::string(e.word) +
                std::string(18 - std::min<size_t>(17, std::string_view(e.word).size()), ' ') + e.meaning +
                "\n";
    text +=
        "\nA field that appears several times, or lists several mailboxes, gives several values: the\n"
        "condition holds when one of them satisfies it (\"does not contain\": when none contains it).\n"
        "\"matches\" takes a regular expression: . [ ] [^ ] ^ $ ( ) (?: ) | * + ? {n,m} \\d \\w \\s \\b and\n"
        "their capitals, \\xHH; no back-references or look-around. Patterns are searched in time that no\n"
        "message can stretch: one that runs too long counts as not matching and is reported.\n\n"
        "The ignore list exempts senders: a message whose sender contains one of its entries is never\n"
        "caught by the rule. \"Filter All\" set on a rule makes it apply to every message, whatever its\n"
        "condition (the ignore list still counts).\n\n"
        "A rule whose tag or action is unknown, whose object is empty, or whose pattern does not compile\n"
        "catches nothing, and the check says so once.\n";
    return text;
}

// --- the message

struct MatchMessage::Prepared {
    bool parsed = false;
    std::vector<HeaderField> fields;
    std::optional<std::vector<Value>> values[11];
    std::optional<std::u32string> sender;
    bool bodyDone = false;
    std::string body;
    std::vector<std::string> attachments;
};

MatchMessage::MatchMessage(const CMessageList& record)
    : m_header(record.GetHeader().str()),
      m_size(record.GetMsgSize()),
      m_from(record.GetSenderName().str()),
      m_to(record.GetReciepient().str()),
      m_subject(record.GetSubject().str()),
      m_replyTo(record.GetReplyTo().str()),
      m_received(record.GetReceivedFrom().str()),
      m_messageId(record.GetMessageID().str()) {}

MatchMessage::~MatchMessage() = default;

MatchMessage::Prepared& MatchMessage::Get() const {
    if (!m_prepared) m_prepared = std::make_unique<Prepared>();
    if (!m_prepared->parsed) {
        m_prepared->fields = ParseHeaderFields(m_header);
        m_prepared->parsed = true;
    }
    return *m_prepared;
}

void MatchMessage::SetMessageText(std::string text) {
    m_text = std::move(text);
    m_hasText = true;
    if (m_prepared) {
        m_prepared->bodyDone = false;
        m_prepared->values[static_cast<int>(MailTag::kBody)].reset();
        m_prepared->values[static_cast<int>(MailTag::kAttachment)].reset();
    }
}

bool MatchMessage::AttachmentsNeedBody() const {
    const HeaderField* type = FindField(Get().fields, "Content-Type");
    return type && IsMultipart(type->value);
}

const std::u32string& MatchMessage::FoldedSender() const {
    Prepared& p = Get();
    if (!p.sender) {
        const HeaderField* from = FindField(p.fields, "From");
        p.sender = FoldedText(from ? DecodeHeaderValue(from->value) : TextToUtf8(m_from));
    }
    return *p.sender;
}

const std::vector<MatchMessage::Value>& MatchMessage::Values(MailTag tag) const {
    Prepared& p = Get();
    std::optional<std::vector<Value>>& slot = p.values[static_cast<int>(tag)];
    if (slot) return *slot;
    // The header's fields of a name, raw; the record's own field when the header has none (a record
    // whose header text was not kept).
    const auto all = [&](std::string_view name, const std::string& fallback) {
        std::vector<std::string> raw;
        for (const HeaderField& f : p.fields)
            if (SameWord(f.name, name)) raw.push_back(f.value);
        if (raw.empty() && p.fields.empty() && !fallback.empty()) raw.push_back(fallback);
        return raw;
    };
    const auto decoded = [](std::vector<std::string> raw) {
        for (std::string& r : raw) r = DecodeHeaderValue(r);
        return raw;
    };
    if (tag == MailTag::kBody || tag == MailTag::kAttachment) {
        if (m_hasText && !p.bodyDone) {
            const size_t blank =
                m_text.find("\r\n\r\n") != std::string::npos ? m_text.find("\r\n\r\n") : m_text.find("\n\n");
            const std::string body = blank == std::string::npos ? "" : m_text.substr(blank);
            CFileManager files;  // the decoder's placeholder files go with it
            CMimeDecoder decoder;
            decoder.m_pFileManager = &files;
            decoder.m_strMessage = XString(CString(m_text));
            decoder.ScanMessage();
            p.attachments.clear();
            for (CMimeHeader& part : decoder.m_listParts) {
                // A part's header text starts with the line end after its boundary.
                std::string_view header = part.GetHeaderText().str();
                while (!header.empty() && (header.front() == '\r' || header.front() == '\n'))
                    header.remove_prefix(1);
                const std::string name = AttachmentOf(ParseHeaderFields(header));
                if (!name.empty()) p.attachments.push_back(name);
            }
            decoder.ReformatText();
            p.body = WithLineFeeds(TextToUtf8(decoder.m_listParts.empty()
                                                  ? std::string_view(body)
                                                  : std::string_view(decoder.m_strMessage.str())));
            p.bodyDone = true;
        }
    }
    std::vector<Value> values;
    switch (tag) {
        case MailTag::kHeader:
            for (const HeaderField& f : p.fields)
                values.push_back({FoldedText(f.name + ": " + DecodeHeaderValue(f.value)), {}});
            if (p.fields.empty() && !m_header.empty())
                values.push_back({FoldedText(TextToUtf8(m_header)), {}});
            break;
        case MailTag::kBody:
            if (p.bodyDone) values.push_back({FoldedText(p.body), {}});
            break;
        case MailTag::kFrom:
            values = MailboxValues(all("From", m_from));
            break;
        case MailTag::kTo:
            values = MailboxValues(all("To", m_to));
            break;
        case MailTag::kCc:
            values = MailboxValues(all("Cc", ""));
            break;
        case MailTag::kSubject:
            values = TextValues(decoded(all("Subject", m_subject)));
            break;
        case MailTag::kReplyTo: {
            std::vector<std::string> raw = all("Reply-To", m_replyTo);
            if (raw.empty()) raw = all("From", m_from);
            values = MailboxValues(raw);
            break;
        }
        case MailTag::kReceived:
            values = TextValues(decoded(all("Received", m_received)));
            break;
        case MailTag::kMessageId:
            values = TextValues(decoded(all("Message-ID", m_messageId)));
            break;
        case MailTag::kSize:
            break;
        case MailTag::kAttachment:
            if (p.bodyDone) {
                values = TextValues(p.attachments);
            } else if (!AttachmentsNeedBody()) {
                const std::string whole = AttachmentOf(p.fields);
                if (!whole.empty()) values.push_back({FoldedText(whole), {}});
            }
            break;
    }
    slot = std::move(values);
    return *slot;
}

// --- the matcher

struct RuleMatcher::Condition {
    MailTag tag = MailTag::kHeader;
    MatchAction action = MatchAction::kContains;
    std::u32string object;
    uint64_t size = 0;
    BoundedRegex regex;
    std::string problem;
};

RuleMatcher::RuleMatcher(Reporter reporter) : m_reporter(std::move(reporter)) {}
RuleMatcher::~RuleMatcher() = default;

std::string RuleMatcher::ConditionProblem(std::string_view tag, std::string_view action,
                                          std::string_view object) {
    const std::optional<MailTag> t = ParseMailTag(tag);
    if (!t) return "unknown Mail Tag \"" + std::string(tag) + "\" (tavik help rules lists them)";
    const std::optional<MatchAction> a = ParseMatchAction(action);
    if (!a) return "unknown Action \"" + std::string(action) + "\" (tavik help rules lists them)";
    if (TrimBlanks(object).empty()) return "no Object to compare with";
    if (*t == MailTag::kSize) {
        if (*a != MatchAction::kEquals && *a != MatchAction::kGreater && *a != MatchAction::kLess)
            return "Size is compared with equals, greater than or less than";
        if (!ParseSize(object))
            return "the Object \"" + std::string(object) + "\" is not a size (100, 20K, 2M)";
        return {};
    }
    if (*a == MatchAction::kGreater || *a == MatchAction::kLess)
        return "greater than and less than compare Size only";
    if (Utf8ToCodePoints(object).size() > kMaxObjectLength)
        return "the Object is longer than 1000 characters";
    if (*a == MatchAction::kMatches) {
        BoundedRegex regex;
        std::string why;
        if (!regex.Compile(object, &why)) return "its pattern does not compile: " + why;
    }
    return {};
}

RuleMatcher::RuleFields RuleMatcher::Read(const CBaseFilter& rule) {
    RuleFields f;
    CString onSuccess, activeOn;
    DWORD useDate = 0, useTime = 0;
    rule.GetFilterData(f.name, f.tag, f.action, f.object, onSuccess, activeOn, f.filterAll, useDate, useTime);
    return f;
}

const RuleMatcher::Condition& RuleMatcher::Compiled(const RuleFields& rule) {
    std::string key = rule.tag.str() + '\x1f' + rule.action.str() + '\x1f' + rule.object.str();
    auto found = m_conditions.find(key);
    if (found != m_conditions.end()) return *found->second;
    auto c = std::make_unique<Condition>();
    c->problem = ConditionProblem(rule.tag.str(), rule.action.str(), rule.object.str());
    if (c->problem.empty()) {
        c->tag = *ParseMailTag(rule.tag.str());
        c->action = *ParseMatchAction(rule.action.str());
        const std::string text = TextToUtf8(TrimBlanks(rule.object.str()));
        if (c->tag == MailTag::kSize) {
            c->size = *ParseSize(text);
        } else if (c->action == MatchAction::kMatches) {
            c->regex.Compile(text);
        } else {
            c->object = FoldedText(text);
        }
    }
    return *m_conditions.emplace(std::move(key), std::move(c)).first->second;
}

void RuleMatcher::Report(const std::string& rule, const std::string& problem) {
    const std::string name = rule.empty() ? "(unnamed rule)" : rule;
    if (!m_reported.emplace(name, problem).second) return;
    m_problems.emplace_back(name, problem);
    if (m_reporter) m_reporter(name, problem);
}

bool RuleMatcher::Ignored(const CBaseFilter& rule, const MatchMessage& message) const {
    CStringArray ignore;
    rule.GetIgnoreList(ignore);
    for (int i = 0; i < ignore.GetSize(); ++i) {
        const std::string_view entry = TrimBlanks(ignore[i].str());
        if (entry.empty()) continue;
        if (message.FoldedSender().find(FoldedText(TextToUtf8(entry))) != std::u32string::npos) return true;
    }
    return false;
}

const RuleMatcher::Condition* RuleMatcher::Usable(const RuleFields& rule) {
    const Condition& c = Compiled(rule);
    if (c.problem.empty()) return &c;
    Report(rule.name.str(), c.problem);
    return nullptr;
}

bool RuleMatcher::NeedsBody(const CBaseFilter& rule, const MatchMessage& message) {
    if (message.HasMessageText()) return false;
    const RuleFields f = Read(rule);
    if (f.filterAll || Ignored(rule, message)) return false;
    const Condition* c = Usable(f);
    return c &&
           (c->tag == MailTag::kBody || (c->tag == MailTag::kAttachment && message.AttachmentsNeedBody()));
}

RuleMatcher::Outcome RuleMatcher::Match(const CBaseFilter& rule, const MatchMessage& message) {
    const RuleFields f = Read(rule);
    if (Ignored(rule, message)) return kIgnored;
    if (f.filterAll) return kMatch;
    const Condition* c = Usable(f);
    if (!c) return kBroken;
    if (c->tag == MailTag::kSize) {
        const uint64_t size = message.Size();
        const bool holds = c->action == MatchAction::kEquals    ? size == c->size
                           : c->action == MatchAction::kGreater ? size > c->size
                                                                : size < c->size;
        return holds ? kMatch : kNoMatch;
    }
    if (!message.HasMessageText() &&
        (c->tag == MailTag::kBody || (c->tag == MailTag::kAttachment && message.AttachmentsNeedBody())))
        return kNeedsBody;

    const std::u32string& object = c->object;
    const auto startsWith = [&](const std::u32string& v) {
        return v.size() >= object.size() && v.compare(0, object.size(), object) == 0;
    };
    const auto endsWith = [&](const std::u32string& v) {
        return v.size() >= object.size() && v.compare(v.size() - object.size(), object.size(), object) == 0;
    };
    uint64_t budget = kSearchBudget;
    bool any = false;
    for (const MatchMessage::Value& v : message.Values(c->tag)) {
        const bool mailbox = !v.address.empty();
        switch (c->action) {
            case MatchAction::kContains:
            case MatchAction::kNotContains:
                any = v.text.find(object) != std::u32string::npos ||
                      (mailbox && v.address.find(object) != std::u32string::npos);
                break;
            case MatchAction::kEquals:
                any = v.text == object || (mailbox && v.address == object);
                break;
            case MatchAction::kStartsWith:
                any = startsWith(v.text) || (mailbox && startsWith(v.address));
                break;
            case MatchAction::kEndsWith:
                any = endsWith(v.text) || (mailbox && endsWith(v.address));
                break;
            case MatchAction::kMatches: {
                uint64_t used = 0;
                const BoundedRegex::Result r = c->regex.Search(v.text, budget, &used);
                if (r == BoundedRegex::Result::kOutOfTime) {
                    Report(f.name.str(),
                           "its pattern ran out of time on a message, which counts as not matching");
                    return kNoMatch;
                }
                budget = used >= budget ? 0 : budget - used;
                any = r == BoundedRegex::Result::kFound;
                break;
            }
            case MatchAction::kGreater:
            case MatchAction::kLess:
                break;
        }
        if (any) break;
    }
    if (c->action == MatchAction::kNotContains) any = !any;
    return any ? kMatch : kNoMatch;
}

}  // namespace tavik::host
