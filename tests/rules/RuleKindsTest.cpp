// What each kind adds: defaults, option accessors in their argument order, the redirector's recipients,
// the auto-responder's duplicates and their expiry, and INI import.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/Clock.h"
#include "platform/Registry.h"
#include "tests/rules/RuleTestSupport.h"
#include "tests/support/TempDir.h"
#include "util/XString.h"

namespace {

using namespace tavik::test;

const char kParent[] = "Software\\Brannick\\Tavik Mail\\Test\\Kinds";

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(RuleKinds, DefaultsOfANewRule) {
    const DWORD now = DWORD(LocalTime(2024, 6, 4, 10, 0, 0).GetTime());
    ScopedClockPin pin(1000, now);
    const std::string base =
        "fields=|Header|contains||Do Nothing|||All Days\nfilter all=0\nuse date=0\nuse time=0\n"
        "hits=0\ndates=" +
        std::to_string(now) + "\nto=" + std::to_string(now + 86400) + "\n";
    const std::string shield = Describe(CSpamBlockProfile());
    EXPECT_TRUE(Has(shield, base)) << shield;
    EXPECT_TRUE(Has(shield,
                    "complain to=\nspam action=Mark\nabuse=0\nadmin=0\nwebmaster=0\nother=0\nactive=0\n"
                    "verify=1\nintelligence=0\n"))
        << shield;
    const std::string redirector = Describe(CForwardMailProfile());
    EXPECT_TRUE(Has(redirector, base));
    EXPECT_TRUE(
        Has(redirector, "body=\nsubject=FWD: %SUBJECT%\nuse body=0\nuse subject=1\nactive=0\nrecipients=\n"))
        << redirector;
    const std::string responder = Describe(CAutoResponderProfile());
    EXPECT_TRUE(Has(responder, base));
    EXPECT_TRUE(Has(responder,
                    "text=\nattach=\nsubject=AUTO-RESPONSE: %SUBJECT%\nduplicate action=Daily\nmark=\n"
                    "ignore duplicates=0\nuse subject=1\nactive=0\nduplicates=\n"))
        << responder;
}

TEST(RuleKinds, OptionsComeBackInTheirArgumentOrder) {
    CSpamBlockProfile shield;
    shield.SetSpamOptions("to", "act", 1, 2, 3, 4, 5, 6, 7);
    CString to, act;
    DWORD v[7] = {};
    shield.GetSpamOptions(to, act, v[0], v[1], v[2], v[3], v[4], v[5], v[6]);
    EXPECT_EQ(to + act, "toact");
    for (DWORD i = 0; i < 7; ++i) EXPECT_EQ(v[i], i + 1);

    CForwardMailProfile redirector;
    redirector.SetRedirectOptions("body", "subject", 1, 2, 3);
    redirector.GetRedirectOptions(to, act, v[0], v[1], v[2]);
    EXPECT_EQ(to + "|" + act, "body|subject");
    EXPECT_EQ(v[0] * 100 + v[1] * 10 + v[2], 123u);

    CAutoResponderProfile responder;
    CString attach, action;
    responder.SetAutoResponderOptions("text", "attach", "subject", "action", 1, 2, 3);
    responder.GetAutoResponderOptions(to, attach, act, action, v[0], v[1], v[2]);
    EXPECT_EQ(to + "|" + attach + "|" + act + "|" + action, "text|attach|subject|action");
    EXPECT_EQ(v[0] * 100 + v[1] * 10 + v[2], 123u);
}

TEST(RuleKinds, RecipientsDifferingInCaseAreOneInStorageButBothInTheRegistry) {
    TempDir dir;
    CStringArray recipients;
    recipients.Add("boss@example.com");
    recipients.Add("BOSS@example.com");
    CForwardMailProfile rule = Named<CForwardMailProfile>("Forward");
    rule.SetRecipients(recipients);
    {
        CStorageManager file(dir.file("user.tvs").c_str(), true);
        rule.SaveStorageData(file.GetStorage(), "Redirector");
        CForwardMailProfile back;
        CStorageManager box;
        box.OpenSubStorage(file.GetStorage(), "Redirector", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, true,
                           true);
        back.ReadStorageData(box.GetStorage(), "Forward");
        back.GetRecipients(recipients);
        EXPECT_EQ(List(recipients), "boss@example.com");
    }
    rule.SaveRegistryData(kParent);
    CForwardMailProfile back;
    back.LoadRegistryData((std::string(kParent) + "\\Forward").c_str());
    back.GetRecipients(recipients);
    EXPECT_EQ(List(recipients), "boss@example.com,BOSS@example.com");
    back.SetDeleted(true);
    back.SaveRegistryData(kParent);
}

TEST(RuleKinds, DuplicatesIgnoreCaseAndCanBeIgnored) {
    CAutoResponderProfile responder;
    responder.AddDuplicate("Sender@Example.com");
    responder.AddDuplicate("sender@example.com");
    responder.AddDuplicate("other@example.com");
    EXPECT_TRUE(responder.SearchDuplicate("SENDER@example.com"));
    EXPECT_FALSE(responder.SearchDuplicate("third@example.com"));
    responder.SetAutoResponderOptions("", "", "s", "Daily", 1, 1, 0);
    EXPECT_FALSE(responder.SearchDuplicate("other@example.com"));
    responder.AddDuplicate("third@example.com");  // still recorded
    CStringArray list;
    responder.GetDuplicates(list);
    EXPECT_EQ(List(list), "Sender@Example.com,other@example.com,third@example.com");
}

// The expiry runs at each registry load: whole hours since 1970 of now and of the reset mark.
TEST(RuleKinds, DuplicatesExpireAfterTheirPeriodOfHourSteps) {
    struct Case {
        const char* action;
        const char* mark;
        int day, hour, minute, second;  // now, June 2024
        bool emptied;
    } cases[] = {
        {"Daily", "2024,06,03,10,00,00", 4, 10, 59, 59, false},  // 24 steps
        {"Daily", "2024,06,03,10,00,00", 4, 11, 0, 0, true},     // 25 steps
        {"DAILY", "2024,06,03,10,59,59", 4, 11, 0, 0, true},
        {"hourly", "2024,06,04,10,59,00", 4, 11, 59, 0, false},  // 1 step
        {"Hourly", "2024,06,04,10,59,00", 4, 12, 0, 0, true},    // 2 steps
        {"weekly", "2020,01,01,00,00,00", 4, 12, 0, 0, false},
        {"Daily", "", 4, 12, 0, 0, false},  // no mark yet: marked now
        {"Daily", "garbage", 4, 12, 0, 0, true},
    };
    ScopedClockPin pin;
    const std::string key = std::string(kParent) + "\\Answer";
    for (const Case& c : cases) {
        CAutoResponderProfile rule = Named<CAutoResponderProfile>("Answer");
        rule.SetAutoResponderOptions("", "", "s", c.action, 0, 1, 0);
        rule.AddDuplicate("seen@example.com");
        rule.SaveRegistryData(kParent);
        HKEY handle = nullptr;
        ASSERT_EQ(RegOpenKeyEx(HKEY_CURRENT_USER, key.c_str(), 0, KEY_ALL_ACCESS, &handle), ERROR_SUCCESS);
        RegSetValueEx(handle, "DateTime", 0, REG_SZ, reinterpret_cast<const BYTE*>(c.mark),
                      DWORD(std::strlen(c.mark) + 1));
        RegCloseKey(handle);

        const CTime now = LocalTime(2024, 6, c.day, c.hour, c.minute, c.second);
        pin.SetTime(now.GetTime());
        XString::SetSeparator('|');
        CAutoResponderProfile loaded;
        loaded.LoadRegistryData(key.c_str());
        CStringArray list;
        loaded.GetDuplicates(list);
        EXPECT_EQ(list.GetSize(), c.emptied ? 0 : 1) << c.action << " " << c.mark;
        const bool marked = c.emptied || !*c.mark;
        EXPECT_EQ(loaded.GetResetMark(), marked ? now.Format("%Y,%m,%d,%H,%M,%S") : CString(c.mark))
            << c.mark;
        EXPECT_EQ(XString::GetSeparator(), *c.mark ? ',' : '|');
        rule.SetDeleted(true);
        rule.SaveRegistryData(kParent);
    }
}

TEST(RuleKinds, IniImportOfEachKind) {
    TempDir dir;
    const std::string ini = dir.file("import.ini");
    WriteFile(
        ini,
        "[Shield]\nFilterName=Junk\nNotify Webmaster=1\nVerify Return Address=0x10\nUse Intelligence=1\n"
        "[Forward]\nFilterName=Boss\nDefault Subject=Fw: %SUBJECT%\nUse Default Body=1\n"
        "[Answer]\nFilterName=Away\nText File=away.txt\nIgnore Duplicates=-1\nDateTime=2001,07,15,09,30,00\n"
        "[Empty]\n");
    CSpamBlockProfile shield;
    DWORD intelligence = 1;
    CString to, act;
    DWORD abuse, admin, webmaster, other, active, verify;
    shield.SetSpamOptions("", "Mark", 0, 0, 0, 0, 0, 1, intelligence);
    shield.ImportFromIni("Shield", ini.c_str());
    shield.GetSpamOptions(to, act, abuse, admin, webmaster, other, active, verify, intelligence);
    EXPECT_EQ(shield.GetFilterName(), "Junk");
    EXPECT_EQ(to + "|" + act, "None|None");
    EXPECT_EQ(webmaster * 1000 + verify, 1016u);
    EXPECT_EQ(intelligence, 1u);  // not imported: kept
    shield.ImportFromIni("Empty", ini.c_str());
    EXPECT_EQ(Fields(shield), "None|None|None|None|None|None|None|None");

    CForwardMailProfile redirector;
    redirector.ImportFromIni("Forward", ini.c_str());
    EXPECT_TRUE(Has(Describe(redirector),
                    "body=None\nsubject=Fw: %SUBJECT%\nuse body=1\nuse subject=0\nactive=0\nrecipients=\n"))
        << Describe(redirector);

    CAutoResponderProfile responder;
    responder.AddDuplicate("kept@example.com");
    responder.ImportFromIni("Answer", ini.c_str());
    EXPECT_TRUE(
        Has(Describe(responder),
            "text=away.txt\nattach=None\nsubject=None\nduplicate action=None\nmark=2001,07,15,09,30,00\n"
            "ignore duplicates=4294967295\nuse subject=0\nactive=0\nduplicates=kept@example.com\n"))
        << Describe(responder);
}

}  // namespace
