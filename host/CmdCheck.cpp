// tavik check --server H [--port P] --user U [--password-file F] [--timeout S]
// The password comes from the file (first line) or from TAVIK_PASSWORD, never from the command line,
// where every other user of the machine could read it.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "host/Commands.h"
#include "host/MailCheck.h"

namespace {

int Usage() {
    std::fprintf(
        stderr,
        "usage: tavik check --server HOST [--port PORT] --user USER [--password-file FILE] "
        "[--timeout SECONDS]\n"
        "The password is the first line of FILE, or else the environment variable TAVIK_PASSWORD.\n");
    return 2;
}

bool ParsePort(const std::string& text, int& value, int low, int high) {
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < low || v > high) return false;
    value = static_cast<int>(v);
    return true;
}

}  // namespace

int tavik::host::RunCheck(const Args& args) {
    CheckOptions o;
    std::string passwordFile;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool hasValue = i + 1 < args.size();
        if (a == "--server" && hasValue)
            o.server = args[++i];
        else if (a == "--user" && hasValue)
            o.user = args[++i];
        else if (a == "--password-file" && hasValue)
            passwordFile = args[++i];
        else if (a == "--port" && hasValue) {
            if (!ParsePort(args[++i], o.port, 1, 65535)) return Usage();
        } else if (a == "--timeout" && hasValue) {
            if (!ParsePort(args[++i], o.timeLimit, 1, 3600)) return Usage();
        } else if (a == "--password") {
            std::fprintf(stderr,
                         "tavik: a password on the command line is visible to every user; "
                         "use --password-file or TAVIK_PASSWORD\n");
            return 2;
        } else {
            return Usage();
        }
    }
    if (o.server.empty() || o.user.empty()) return Usage();
    if (!passwordFile.empty()) {
        std::ifstream f(passwordFile);
        if (!f || !std::getline(f, o.password)) {
            std::fprintf(stderr, "tavik: cannot read the password file %s\n", passwordFile.c_str());
            return 1;
        }
        if (!o.password.empty() && o.password.back() == '\r') o.password.pop_back();
    } else if (const char* env = std::getenv("TAVIK_PASSWORD")) {
        o.password = env;
    } else {
        std::fprintf(stderr, "tavik: no password: give --password-file FILE or set TAVIK_PASSWORD\n");
        return 2;
    }
    return RunMailCheck(o, stdout);
}
