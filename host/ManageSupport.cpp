#include "host/ManageSupport.h"

#include <cstdio>

#include "platform/CString.h"

namespace tavik::host {

std::vector<Option> SignInOptions() {
    return {
        Option::Value("user", "NAME", "sign in as this user (default: the default user)"),
        Option::Value("password-file", "FILE",
                      "the user's password is the first line of FILE (else TAVIK_PASSWORD, else asked)"),
        Option::Refused("password",
                        "a password on the command line is visible to every user of the machine; "
                        "use --password-file, TAVIK_PASSWORD or the prompt"),
    };
}

std::vector<Option> WithSignIn(std::vector<Option> own) {
    std::vector<Option> all = SignInOptions();
    all.insert(all.end(), own.begin(), own.end());
    return all;
}

std::unique_ptr<UserSession> SignIn(const Invocation& call) {
    std::string file = call.args.Get("password-file");
    return std::make_unique<UserSession>(call.args.Get("user"), [file](const std::string& user) {
        return ReadPassword(file, "TAVIK_PASSWORD", "Password for " + user + ": ");
    });
}

std::string Json(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20) {
                    char esc[8];
                    std::snprintf(esc, sizeof esc, "\\u%04x", c);
                    out += esc;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }

bool ParseSwitch(const std::string& option, const std::string& value) {
    CString v(value.c_str());
    for (const char* yes : {"yes", "on", "true", "1"})
        if (v.CompareNoCase(yes) == 0) return true;
    for (const char* no : {"no", "off", "false", "0"})
        if (v.CompareNoCase(no) == 0) return false;
    throw UsageError("--" + option + " takes yes or no, not '" + value + "'");
}

}  // namespace tavik::host
