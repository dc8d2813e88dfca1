// Whether a rule's condition holds for a message: the rule's "Mail Tag" names where to look, its "Action"
// how to compare, its "Object" with what. Letter case is ignored; header values are compared decoded.
//
// Use: one MatchMessage per message (it prepares the message's fields once, as rules ask for them) and one
// RuleMatcher per check (it compiles each condition once and reports each broken rule once):
//
//     RuleMatcher matcher([&](const std::string& rule, const std::string& problem) { ... });
//     MatchMessage message(record);
//     switch (matcher.Match(rule, message)) {
//         case RuleMatcher::kNeedsBody: message.SetMessageText(fetched); ... Match again
//         ...
//     }
//
// Nothing here throws for what a rule or a message holds; matching never fails the check.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/BoundedRegex.h"
#include "platform/CString.h"

class CBaseFilter;
class CMessageList;

namespace tavik::host {

// The vocabulary, as rules spell it (letter case and surrounding blanks do not count).
enum class MailTag {
    kHeader,
    kBody,
    kFrom,
    kTo,
    kCc,
    kSubject,
    kReplyTo,
    kReceived,
    kMessageId,
    kSize,
    kAttachment
};
enum class MatchAction {
    kContains,
    kNotContains,
    kEquals,
    kStartsWith,
    kEndsWith,
    kMatches,
    kGreater,
    kLess
};

struct VocabularyEntry {
    const char* word;
    const char* meaning;  // one line for `tavik help rules`
};
// In the order of the enumerations above.
const std::vector<VocabularyEntry>& MailTagWords();
const std::vector<VocabularyEntry>& MatchActionWords();
std::optional<MailTag> ParseMailTag(std::string_view word);
std::optional<MatchAction> ParseMatchAction(std::string_view word);

// What `tavik help rules` prints: the tags, the actions, and how objects, the ignore list and "Filter All"
// are read.
std::string RulesHelpText();

// One message as rules see it. Copies what it needs from the record (the header text and the fields the
// record scanned), so the record may change or go afterwards. Each field is prepared on first use.
class MatchMessage {
public:
    explicit MatchMessage(const CMessageList& record);
    ~MatchMessage();
    MatchMessage(const MatchMessage&) = delete;
    MatchMessage& operator=(const MatchMessage&) = delete;

    // The message as fetched: its header, a blank line and its body (all of it, or the lines TOP gave).
    // The body is decoded for display (transfer encodings, parts) before comparison; its attachments are
    // listed from its parts.
    void SetMessageText(std::string text);
    bool HasMessageText() const { return m_hasText; }
    // Whether the message's attachments can only be known from its body: its header says multipart.
    bool AttachmentsNeedBody() const;

    // One value a tag yields: folded text, and for mailboxes the folded bare address too.
    struct Value {
        std::u32string text;
        std::u32string address;  // empty unless the tag lists mailboxes
    };
    // The values of a tag (several for repeated fields, mailbox lists, attachments; none when absent).
    // Body and Attachment give nothing until the message text is set (Attachment: unless the header
    // already tells). Size gives nothing: see Size().
    const std::vector<Value>& Values(MailTag tag) const;
    uint32_t Size() const { return m_size; }
    // The folded sender (the decoded From field as written, or the record's sender): what the ignore list
    // is searched in.
    const std::u32string& FoldedSender() const;

private:
    struct Prepared;
    std::string m_header;
    std::string m_text;
    bool m_hasText = false;
    uint32_t m_size = 0;
    std::string m_from, m_to, m_subject, m_replyTo, m_received, m_messageId;  // the record's own scan
    mutable std::unique_ptr<Prepared> m_prepared;
    Prepared& Get() const;
};

class RuleMatcher {
public:
    enum Outcome {
        kNoMatch,    // the condition does not hold
        kMatch,      // it holds (or the rule's "Filter All" is set)
        kIgnored,    // the sender is on the rule's ignore list: the rule does not apply
        kNeedsBody,  // the condition looks at the body (or at attachments) and the message text is not set
        kBroken,     // the condition cannot be evaluated (reported once): treat as not holding
    };
    // Called once per rule name and problem: an unknown tag or action, an empty object, a bad pattern,
    // a comparison the tag does not allow, a pattern that ran out of time.
    using Reporter = std::function<void(const std::string& rule, const std::string& problem)>;

    explicit RuleMatcher(Reporter reporter = nullptr);
    ~RuleMatcher();
    RuleMatcher(const RuleMatcher&) = delete;
    RuleMatcher& operator=(const RuleMatcher&) = delete;

    // The ignore list first (each non-empty entry searched for anywhere in the sender, case ignored), then
    // "Filter All", then the condition.
    Outcome Match(const CBaseFilter& rule, const MatchMessage& message);
    // Whether Match would answer kNeedsBody: the check fetches the body only for rules that need it.
    bool NeedsBody(const CBaseFilter& rule, const MatchMessage& message);

    // What is wrong with a condition, or empty when it can be evaluated. No report.
    static std::string ConditionProblem(std::string_view tag, std::string_view action,
                                        std::string_view object);

    // Every problem reported so far, in order: (rule name, problem).
    const std::vector<std::pair<std::string, std::string>>& Problems() const { return m_problems; }

private:
    struct Condition;
    struct RuleFields {
        CString name, tag, action, object;
        DWORD filterAll = 0;
    };
    static RuleFields Read(const CBaseFilter& rule);
    const Condition& Compiled(const RuleFields& rule);
    // The compiled condition, or null (reported) when it cannot be evaluated.
    const Condition* Usable(const RuleFields& rule);
    void Report(const std::string& rule, const std::string& problem);
    bool Ignored(const CBaseFilter& rule, const MatchMessage& message) const;

    Reporter m_reporter;
    std::map<std::string, std::unique_ptr<Condition>> m_conditions;  // by tag, action, object
    std::set<std::pair<std::string, std::string>> m_reported;
    std::vector<std::pair<std::string, std::string>> m_problems;
};

}  // namespace tavik::host
