// tavik install-timer: the unit files it writes (checked by systemd's own verifier), quoting that no path
// can break, the interval from the options, and files that are never replaced without --force.
#include "host/SystemdTimer.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "accounts/CRegistryOptions.h"
#include "host/Dispatch.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace tavik::host {
namespace {

using tavik::test::ReadFile;
using tavik::test::TempDir;
using tavik::test::WriteFile;

std::string Drain(FILE* f) {
    std::string text;
    std::rewind(f);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

bool KeyExists(const std::string& path) {
    HKEY key = nullptr;
    if (RegOpenKeyEx(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
    RegCloseKey(key);
    return true;
}

class SystemdTimer : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TAVIK_REGISTRY", m_dir.file("registry.db").c_str(), 1);
        setenv("TAVIK_DATA", m_dir.file("data").c_str(), 1);
        setenv("XDG_CONFIG_HOME", m_dir.file("config").c_str(), 1);
        RegSetStorePath(nullptr);
    }
    void TearDown() override { unsetenv("XDG_CONFIG_HOME"); }

    struct Outcome {
        int rc;
        std::string out, err;
    };
    Outcome Tavik(const std::vector<std::string>& args) {
        FILE* out = std::tmpfile();
        FILE* err = std::tmpfile();
        const int rc = RunTavik(args, out, err);
        return {rc, Drain(out), Drain(err)};
    }
    std::string Units() const { return m_dir.file("config/systemd/user"); }

    TempDir m_dir;
};

TEST_F(SystemdTimer, QuotingAndUnitText) {
    EXPECT_EQ(SystemdQuote("/opt/my tavik/bin/tavik", true), "\"/opt/my tavik/bin/tavik\"");
    EXPECT_EQ(SystemdQuote("a\"b\\c%d$e", true), "\"a\\\"b\\\\c%%d$$e\"");
    EXPECT_EQ(SystemdQuote("a$e", false), "\"a$e\"");
    EXPECT_EQ(SystemdQuote("a\nExecStart=/bin/evil", true), "");

    TimerSpec settings{"/opt/100%/tavik", 15, {{"TAVIK_DATA", "/home/ann/mail data"}}};
    EXPECT_EQ(
        ServiceUnitText(settings),
        "# Written by tavik install-timer: one check of every account, started by tavikmail-check.timer.\n"
        "[Unit]\n"
        "Description=tavikmail: check mail and fight junk\n"
        "\n"
        "[Service]\n"
        "Type=oneshot\n"
        "ExecStart=\"/opt/100%%/tavik\" watch --once\n"
        "Environment=\"TAVIK_DATA=/home/ann/mail data\"\n"
        "SuccessExitStatus=3\n");
    EXPECT_EQ(TimerUnitText(settings),
              "# Written by tavik install-timer.\n"
              "[Unit]\n"
              "Description=tavikmail: check mail every 15 minutes\n"
              "\n"
              "[Timer]\n"
              "OnStartupSec=1min\n"
              "OnUnitActiveSec=15min\n"
              "Unit=tavikmail-check.service\n"
              "\n"
              "[Install]\n"
              "WantedBy=timers.target\n");
    settings.environment.push_back({"XDG_STATE_HOME", "/tmp/\x1b"});
    EXPECT_EQ(ServiceUnitText(settings), "");
}

TEST_F(SystemdTimer, WritesOnceRefusesToReplaceAndPassesSystemdsVerifier) {
    InstallOptions o;
    o.directory = Units();
    o.settings = {"/bin/true", 5, {{"TAVIK_DATA", m_dir.file("data dir")}}};
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    ASSERT_EQ(InstallTimer(o, out, err), 0) << Drain(err);
    const std::string said = Drain(out);
    EXPECT_NE(said.find("wrote " + Units() + "/tavikmail-check.service\nwrote " + Units() +
                        "/tavikmail-check.timer\n"),
              std::string::npos)
        << said;
    EXPECT_NE(
        said.find(
            "  systemctl --user daemon-reload\n  systemctl --user enable --now tavikmail-check.timer\n"),
        std::string::npos);
    const std::string service = ReadFile(Units() + "/tavikmail-check.service");
    EXPECT_EQ(service, ServiceUnitText(o.settings));
    EXPECT_EQ(ReadFile(Units() + "/tavikmail-check.timer"), TimerUnitText(o.settings));
    EXPECT_FALSE(std::filesystem::exists(Units() + "/tavikmail-check.service.new"));

    // systemd's own reading of the files: every key known, the program there to run.
    if (std::system("command -v systemd-analyze >/dev/null") == 0) {
        const std::string verify = "systemd-analyze verify '" + Units() + "/tavikmail-check.service' '" +
                                   Units() + "/tavikmail-check.timer' 2>&1";
        FILE* pipe = popen(verify.c_str(), "r");
        ASSERT_NE(pipe, nullptr);
        std::string said_by_systemd;
        char buf[512];
        while (std::fgets(buf, sizeof buf, pipe)) said_by_systemd += buf;
        EXPECT_EQ(pclose(pipe), 0) << said_by_systemd;
        EXPECT_EQ(said_by_systemd, "");
    } else {
        ADD_FAILURE() << "systemd-analyze is missing: scripts/install-deps installs systemd";
    }

    // A second install changes nothing without --force.
    o.settings.intervalMinutes = 20;
    out = std::tmpfile();
    err = std::tmpfile();
    EXPECT_EQ(InstallTimer(o, out, err), 1);
    EXPECT_EQ(Drain(out), "");
    EXPECT_EQ(Drain(err),
              "tavik install-timer: " + Units() + "/tavikmail-check.service exists: --force replaces it\n");
    EXPECT_EQ(ReadFile(Units() + "/tavikmail-check.service"), service);
    std::filesystem::remove(Units() + "/tavikmail-check.service");
    err = std::tmpfile();
    EXPECT_EQ(InstallTimer(o, nullptr, err), 1);  // the timer alone is enough to refuse
    EXPECT_EQ(Drain(err),
              "tavik install-timer: " + Units() + "/tavikmail-check.timer exists: --force replaces it\n");
    EXPECT_FALSE(std::filesystem::exists(Units() + "/tavikmail-check.service"));
    o.force = true;
    out = std::tmpfile();
    ASSERT_EQ(InstallTimer(o, out, stderr), 0);
    std::fclose(out);
    EXPECT_NE(ReadFile(Units() + "/tavikmail-check.timer").find("OnUnitActiveSec=20min\n"),
              std::string::npos);

    // Nothing written where the directory cannot be.
    WriteFile(m_dir.file("plain"), "");
    o.directory = m_dir.file("plain/units");
    err = std::tmpfile();
    EXPECT_EQ(InstallTimer(o, nullptr, err), 1);
    EXPECT_EQ(Drain(err).rfind("tavik install-timer: cannot create " + o.directory, 0), 0u);
    o.settings.intervalMinutes = 0;
    err = std::tmpfile();
    EXPECT_EQ(InstallTimer(o, nullptr, err), 1);
    EXPECT_EQ(Drain(err), "tavik install-timer: the interval must be 1 to 10080 minutes\n");
}

TEST_F(SystemdTimer, TheCommandTakesTheIntervalFromTheOptionOrTheConfiguration) {
    const std::string key = DefaultConfigurationKey();
    EXPECT_EQ(key, "Software\\Brannick\\Tavik Mail\\Configuration");
    EXPECT_EQ(ConfiguredCheckInterval(key, 7), 7u);
    EXPECT_FALSE(KeyExists(key));  // looking did not create it

    Outcome printed = Tavik({"install-timer", "--print", "--interval", "3"});
    EXPECT_EQ(printed.rc, 0) << printed.err;
    EXPECT_NE(printed.out.find("OnUnitActiveSec=3min\n"), std::string::npos);
    EXPECT_NE(printed.out.find("\" watch --once\n"), std::string::npos);
    EXPECT_NE(printed.out.find("Environment=\"TAVIK_REGISTRY=" + m_dir.file("registry.db") + "\"\n"),
              std::string::npos);
    EXPECT_NE(printed.out.find("Environment=\"XDG_CONFIG_HOME=" + m_dir.file("config") + "\"\n"),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(Units()));

    CRegistryOptions options;
    options.SetCheckInterval(25);
    options.SaveSettings(CString(key));
    EXPECT_EQ(ConfiguredCheckInterval(key), 25u);
    Outcome installed = Tavik({"install-timer"});
    EXPECT_EQ(installed.rc, 0) << installed.err;
    EXPECT_NE(ReadFile(Units() + "/tavikmail-check.timer").find("OnUnitActiveSec=25min\n"),
              std::string::npos);
    EXPECT_NE(installed.out.find("every 25 minutes"), std::string::npos);

    options.SetCheckInterval(0);
    options.SaveSettings(CString(key));
    Outcome off = Tavik({"install-timer", "--force"});
    EXPECT_EQ(off.rc, 1);
    EXPECT_EQ(off.err,
              "tavik install-timer: the CheckMail Interval option is 0 minutes: give --interval MINUTES\n");
    EXPECT_EQ(Tavik({"install-timer", "--interval", "0"}).rc, 2);
    EXPECT_EQ(Tavik({"install-timer", "--interval", "10081"}).rc, 2);
}

}  // namespace
}  // namespace tavik::host
