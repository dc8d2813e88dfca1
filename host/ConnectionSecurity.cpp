#include "host/ConnectionSecurity.h"

#include "platform/Winsock.h"

namespace tavik::host {

std::vector<Option> SecurityOptionList(MailProtocol protocol) {
    const bool pop3 = protocol == MailProtocol::kPop3;
    return {
        Option::Value("tls", "MODE",
                      std::string("none, starttls (") + (pop3 ? "STLS" : "STARTTLS") +
                          " after the greeting) or implicit (TLS from the first byte)"),
        Option::Flag("insecure",
                     "accept any certificate (still encrypted, but anyone in between can read it)"),
        Option::Value("ca-file", "FILE", "also trust the authorities in FILE (PEM)"),
    };
}

std::string SecurityDetails(MailProtocol protocol) {
    const bool pop3 = protocol == MailProtocol::kPop3;
    return std::string("Without --tls: none for a server on this machine (port ") + (pop3 ? "110" : "25") +
           " by default) unless the port is " + (pop3 ? "995" : "465") +
           ";\nfor any other server starttls on port " + (pop3 ? "110" : "25 or 587") +
           ", else implicit (port " + (pop3 ? "995" : "465") +
           " by default).\nThe certificate is checked against the system's authorities and the server's "
           "name\n"
           "unless --insecure is given.";
}

SecurityOptions ReadSecurityOptions(const Arguments& args) {
    SecurityOptions o;
    o.tls = args.Get("tls");
    if (!o.tls.empty() && o.tls != "none" && o.tls != "starttls" && o.tls != "implicit")
        throw UsageError("--tls takes none, starttls or implicit, not '" + o.tls + "'");
    o.insecure = args.Has("insecure");
    o.trustFile = args.Get("ca-file");
    return o;
}

bool IsLoopback(const std::string& server) {
    const hostent* host = gethostbyname(server.c_str());
    if (!host || !host->h_addr_list[0]) return false;
    // The first byte of an address in network order is its first part.
    return static_cast<unsigned char>(host->h_addr_list[0][0]) == 127;
}

CBlockingSocket::SECURITY ChooseSecurity(const SecurityOptions& options, MailProtocol protocol,
                                         const std::string& server, int port) {
    if (options.tls == "none") return CBlockingSocket::SECURITY_NONE;
    if (options.tls == "starttls") return CBlockingSocket::SECURITY_STARTTLS;
    if (options.tls == "implicit") return CBlockingSocket::SECURITY_TLS;
    // The ports of TLS from the first byte say what is wanted, even on this machine.
    if (port == (protocol == MailProtocol::kPop3 ? 995 : 465)) return CBlockingSocket::SECURITY_TLS;
    if (IsLoopback(server)) return CBlockingSocket::SECURITY_NONE;
    const bool plainPort = protocol == MailProtocol::kPop3 ? port == 110 : port == 25 || port == 587;
    return plainPort ? CBlockingSocket::SECURITY_STARTTLS : CBlockingSocket::SECURITY_TLS;
}

int DefaultPort(MailProtocol protocol, CBlockingSocket::SECURITY security) {
    if (protocol == MailProtocol::kPop3) return security == CBlockingSocket::SECURITY_TLS ? 995 : 110;
    switch (security) {
        case CBlockingSocket::SECURITY_TLS:
            return 465;
        case CBlockingSocket::SECURITY_STARTTLS:
            return 587;
        default:
            return 25;
    }
}

namespace {

// The settings and their words, which are --tls's own but for automatic.
constexpr struct {
    DWORD setting;
    const char* word;
} kSettings[] = {
    {CMailBoxData::SECURITY_AUTOMATIC, "auto"},
    {CMailBoxData::SECURITY_NONE, "none"},
    {CMailBoxData::SECURITY_UPGRADE, "starttls"},
    {CMailBoxData::SECURITY_TLS, "implicit"},
};

}  // namespace

SecurityOptions AccountSecurityOptions(DWORD setting) {
    SecurityOptions o;
    o.tls = SecuritySettingName(setting);
    if (o.tls == "auto") o.tls.clear();
    return o;
}

bool ParseSecuritySetting(const std::string& text, DWORD& setting) {
    for (const auto& s : kSettings) {
        if (text == s.word) {
            setting = s.setting;
            return true;
        }
    }
    return false;
}

std::string SecuritySettingName(DWORD setting) {
    for (const auto& s : kSettings)
        if (s.setting == setting) return s.word;
    return "auto";
}

std::string SecurityName(MailProtocol protocol, CBlockingSocket::SECURITY security) {
    switch (security) {
        case CBlockingSocket::SECURITY_TLS:
            return "TLS from the first byte";
        case CBlockingSocket::SECURITY_STARTTLS:
            return protocol == MailProtocol::kPop3 ? "STLS" : "STARTTLS";
        default:
            return "no encryption";
    }
}

std::string CertificateAdvice(const std::string& error) {
    if (error.rfind("The server's certificate", 0) != 0) return "";
    return "--ca-file FILE trusts the authority that signed it; --insecure connects without checking "
           "(still encrypted)";
}

}  // namespace tavik::host
