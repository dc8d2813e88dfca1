#include "tests/rules/RuleTestSupport.h"

#include <gtest/gtest.h>

#include <memory>

#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace tavik::test {

namespace {

// No rule test may reach the user's own registry: the whole binary runs on a store of its own.
class PrivateRegistry : public ::testing::Environment {
public:
    void SetUp() override {
        m_dir = std::make_unique<TempDir>();
        RegSetStorePath(m_dir->file("registry.db").c_str());
    }
    void TearDown() override {
        RegCloseStore();
        RegSetStorePath(nullptr);
        m_dir.reset();
    }

private:
    std::unique_ptr<TempDir> m_dir;
};

[[maybe_unused]] ::testing::Environment* const g_registry =
    ::testing::AddGlobalTestEnvironment(new PrivateRegistry);

std::string Line(const char* name, DWORD value) {
    return std::string(name) + "=" + std::to_string(value) + "\n";
}
std::string Line(const char* name, const CString& value) {
    return std::string(name) + "=" + value.GetString() + "\n";
}

}  // namespace

std::string List(const CStringArray& list) {
    std::string out;
    for (int i = 0; i < list.GetSize(); ++i) out += (i ? "," : "") + list[i].str();
    return out;
}

std::string Describe(const CBaseFilter& rule) {
    CString name, tag, action, object, success, activeOn;
    DWORD all = 0, useDate = 0, useTime = 0;
    rule.GetFilterData(name, tag, action, object, success, activeOn, all, useDate, useTime);
    CTime fromDate, toDate, fromTime, toTime;
    rule.GetDateIntervals(fromDate, toDate);
    rule.GetTimeIntervals(fromTime, toTime);
    std::list<DWORD> ids;
    rule.GetProcessedIDs(ids);
    std::string processed;
    for (DWORD id : ids) processed += std::to_string(id) + ",";
    CStringArray ignore;
    rule.GetIgnoreList(ignore);
    return "fields=" + Fields(rule) + "\n" + Line("filter all", all) + Line("use date", useDate) +
           Line("use time", useTime) + Line("hits", rule.GetHitCount()) +
           Line("dates", DWORD(fromDate.GetTime())) + Line("to", DWORD(toDate.GetTime())) +
           Line("times", DWORD(fromTime.GetTime())) + Line("to", DWORD(toTime.GetTime())) +
           "processed=" + processed + "\nignore=" + List(ignore) + "\n" + Line("deleted", rule.GetDeleted()) +
           Line("valid", rule.IsValidObject());
}

std::string Describe(const CSpamBlockProfile& rule) {
    CString complainTo, action;
    DWORD abuse, admin, webmaster, other, active, verify, intelligence;
    rule.GetSpamOptions(complainTo, action, abuse, admin, webmaster, other, active, verify, intelligence);
    return Describe(static_cast<const CBaseFilter&>(rule)) + Line("complain to", complainTo) +
           Line("spam action", action) + Line("abuse", abuse) + Line("admin", admin) +
           Line("webmaster", webmaster) + Line("other", other) + Line("active", active) +
           Line("verify", verify) + Line("intelligence", intelligence);
}

std::string Describe(const CForwardMailProfile& rule) {
    CString body, subject;
    DWORD useBody, useSubject, active;
    rule.GetRedirectOptions(body, subject, useBody, useSubject, active);
    CStringArray recipients;
    rule.GetRecipients(recipients);
    return Describe(static_cast<const CBaseFilter&>(rule)) + Line("body", body) + Line("subject", subject) +
           Line("use body", useBody) + Line("use subject", useSubject) + Line("active", active) +
           "recipients=" + List(recipients) + "\n";
}

std::string Describe(const CAutoResponderProfile& rule) {
    CString text, attach, subject, duplicateAction;
    DWORD ignore, useSubject, active;
    rule.GetAutoResponderOptions(text, attach, subject, duplicateAction, ignore, useSubject, active);
    CStringArray duplicates;
    rule.GetDuplicates(duplicates);
    return Describe(static_cast<const CBaseFilter&>(rule)) + Line("text", text) + Line("attach", attach) +
           Line("subject", subject) + Line("duplicate action", duplicateAction) +
           Line("mark", rule.GetResetMark()) + Line("ignore duplicates", ignore) +
           Line("use subject", useSubject) + Line("active", active) + "duplicates=" + List(duplicates) + "\n";
}

void Fill(CBaseFilter& rule, int seed) {
    const std::string n = std::to_string(seed);
    rule.SetFilterData(("Rule " + n).c_str(), "Subject", "is", ("object " + n).c_str(), "Move", "Weekdays", 3,
                       1, 1);
    rule.SetMailBoxFolder(("Folder " + n).c_str());
    rule.SetProcessedIDsFile(("/tmp/rule" + n + ".tpd").c_str());
    rule.SetDateIntervals(LocalTime(2003, 1, 2, 3, 4, 5), LocalTime(2004, 6, 7, 8, 9, 10));
    rule.SetTimeIntervals(LocalTime(2000, 1, 1, 8, 0, 0), LocalTime(2000, 1, 1, 18, 30, 0));
    for (DWORD i = 0; i < 5; ++i) rule.AddProcessedID(0xF0000000u + DWORD(seed) * 100 + i);
    rule.IncrementHits(10);
    CStringArray ignore;
    ignore.Add(("ignore" + n + "@example.com").c_str());
    ignore.Add("postmaster");
    rule.SetIgnoreList(ignore);
}

void Fill(CSpamBlockProfile& rule, int seed) {
    Fill(static_cast<CBaseFilter&>(rule), seed);
    rule.SetSpamOptions("abuse@example.net", "Delete", 1, 0, 1, 0, 1, 0, 1);
}

void Fill(CForwardMailProfile& rule, int seed) {
    Fill(static_cast<CBaseFilter&>(rule), seed);
    rule.SetRedirectOptions("body.tpl", "Fw: %SUBJECT%", 1, 0, 1);
    CStringArray recipients;
    recipients.Add("one@example.com");
    recipients.Add(("two" + std::to_string(seed) + "@example.com").c_str());
    rule.SetRecipients(recipients);
}

void Fill(CAutoResponderProfile& rule, int seed) {
    Fill(static_cast<CBaseFilter&>(rule), seed);
    rule.SetAutoResponderOptions("answer.txt", "leaflet.pdf", "Re: %SUBJECT%", "hourly", 1, 0, 1);
    rule.AddDuplicate("first@example.com");
    rule.AddDuplicate(("second" + std::to_string(seed) + "@example.com").c_str());
}

}  // namespace tavik::test
