#include "host/DemoUser.h"

#include <filesystem>
#include <fstream>
#include <random>

#include "host/AccountEdit.h"
#include "host/RuleEdit.h"
#include "host/UserSession.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"

namespace tavik::host {

namespace {

namespace fs = std::filesystem;

// The answer the demo's auto-responder sends.
constexpr const char* kAnswerText =
    "Hello,\r\n"
    "\r\n"
    "Thank you for your message about your order. Our shop is closed this week; we will answer\r\n"
    "you in person on Monday.\r\n"
    "\r\n"
    "Demo User\r\n";

struct DemoRule {
    RuleKind kind;
    bool global;
    const char* name;
    const char* tag;
    const char* match;
    const char* object;
    const char* action;  // a shield's spam action; the others act by their kind
};

// Each catches a message of the sample mailbox; the pharmacy shield needs the body, so the check has
// to fetch one.
const DemoRule kRules[] = {
    {RuleKind::kShield, true, "Urgent offers", "Subject", "contains", "urgent", "Delete"},
    {RuleKind::kShield, false, "Phishing", "From", "contains", "paypa1", "Delete"},
    {RuleKind::kShield, false, "Pharmacy", "Body", "contains", "cheap-meds.example", "Delete"},
    {RuleKind::kShield, false, "Dating", "Subject", "matches", "singles? near you", "Delete"},
    {RuleKind::kResponder, false, "Orders", "Subject", "contains", "order", "Respond"},
};

const char* const kFriends[] = {"ann.porter@example.org", "tom@reyes-family.example", "m.lind@example.com"};
const char* const kSpammers[] = {"prize-centre.example", "watches4u.example"};

std::string ProgramDirectory() {
    char path[4096];
    DWORD n = GetModuleFileName(nullptr, path, sizeof path);
    if (n == 0 || n >= sizeof path) return {};
    return fs::path(path).parent_path().string();
}

void AddDemoRule(CMailBoxProfile& owner, const DemoRule& r, const std::string& textFile) {
    CBaseFilter& rule = AddRule(owner, r.kind, r.name);
    CString name, tag, match, object, onSuccess, activeOn;
    DWORD filterAll, useDate, useTime;
    rule.GetFilterData(name, tag, match, object, onSuccess, activeOn, filterAll, useDate, useTime);
    onSuccess = r.kind == RuleKind::kShield ? onSuccess : CString(r.action);
    rule.SetFilterData(name, r.tag, r.match, r.object, onSuccess, "All Days", filterAll, 0, 0);
    CString t1, t2, t3, t4;
    DWORD n1, n2, n3, n4, n5, n6, n7;
    if (r.kind == RuleKind::kShield) {
        auto& shield = static_cast<CSpamBlockProfile&>(rule);
        shield.GetSpamOptions(t1, t2, n1, n2, n3, n4, n5, n6, n7);
        shield.SetSpamOptions(t1, r.action, n1, n2, n3, n4, n5, n6, n7);
    } else {
        auto& responder = static_cast<CAutoResponderProfile&>(rule);
        responder.GetAutoResponderOptions(t1, t2, t3, t4, n1, n2, n3);
        responder.SetAutoResponderOptions(textFile.c_str(), t2, t3, t4, n1, n2, n3);
    }
    SetRuleEnabled(rule, r.kind, true);
}

}  // namespace

DemoWorkspace::DemoWorkspace() {
    std::error_code ec;
    const fs::path base = fs::temp_directory_path(ec);
    if (ec) throw SessionError("no temporary directory for the demo: " + ec.message());
    std::random_device seed;
    std::mt19937 random(seed());
    for (int attempt = 0; attempt < 100 && m_dir.empty(); ++attempt) {
        fs::path candidate = base / ("tavik-demo-" + std::to_string(random() % 1000000000u));
        if (fs::create_directory(candidate, ec)) m_dir = candidate.string();
        if (ec)
            throw SessionError("cannot make the demo's directory " + candidate.string() + ": " +
                               ec.message());
    }
    if (m_dir.empty()) throw SessionError("cannot make the demo's directory under " + base.string());
    fs::permissions(m_dir, fs::perms::owner_all, fs::perm_options::replace, ec);

    m_previousStore = RegGetStorePath();
    m_previousProgram = ProgramDirectory();
    const std::string data = Path("data");
    if (!TavikUseDataDirectory(data.c_str())) {
        fs::remove_all(m_dir, ec);
        throw SessionError("cannot use " + data + " as the demo's data directory");
    }
    RegSetStorePath(Path("registry.db").c_str());
}

DemoWorkspace::~DemoWorkspace() {
    RegCloseStore();
    RegSetStorePath(m_previousStore.c_str());
    TavikSetApplicationDirectory(m_previousProgram.empty() ? nullptr : m_previousProgram.c_str());
    std::error_code ec;
    fs::remove_all(m_dir, ec);
}

DemoUserSetup CreateDemoUser(const DemoWorkspace& workspace, unsigned short pop3Port,
                             unsigned short smtpPort) {
    DemoUserSetup setup;
    const std::string textFile = workspace.Path("order-answer.txt");
    {
        std::ofstream text(textFile, std::ios::binary);
        text << kAnswerText;
        if (!text.flush()) throw SessionError("cannot write " + textFile);
    }

    UserSession session("", [](const std::string&) { return std::string(); });
    auto account = std::make_unique<CMailBoxProfile>();
    account->SetGeneralData(setup.account.c_str(), "Demo User", setup.address.c_str(), "", "");
    const std::string pop3 = "127.0.0.1:" + std::to_string(pop3Port);
    const std::string smtp = "127.0.0.1:" + std::to_string(smtpPort);
    account->SetServerData(pop3.c_str(), smtp.c_str(), "POP3", "SMTP", setup.login.c_str(),
                           setup.password.c_str(), "", "");
    // Loopback needs no TLS, and the demo's servers offer none.
    account->SetConnectionSecurity(CMailBoxData::SECURITY_NONE, CMailBoxData::SECURITY_NONE);
    CMailBoxProfile& demo = session.AddAccount(std::move(account));

    setup.friends.assign(std::begin(kFriends), std::end(kFriends));
    setup.spammers.assign(std::begin(kSpammers), std::end(kSpammers));
    AddEntries(demo, AccountList::kFriends, setup.friends);
    AddEntries(demo, AccountList::kSpammers, setup.spammers);
    for (const DemoRule& r : kRules) {
        AddDemoRule(r.global ? session.GlobalShields() : demo, r, textFile);
        setup.rules.push_back(std::string(RuleKindName(r.kind)) + " \"" + r.name + "\"" +
                              (r.global ? " (every account)" : "") + ": " + r.tag + " " + r.match + " \"" +
                              r.object + "\" -> " + r.action);
    }
    session.Save();
    return setup;
}

}  // namespace tavik::host
