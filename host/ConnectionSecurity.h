// How `tavik check` and `tavik send` secure their connection: the options they share (--tls, --insecure,
// --ca-file) and the choice made when none is given. The port of TLS from the first byte (995, 465)
// gets it; otherwise a server on this machine is spoken to in plain text, and any other gets TLS: an
// upgrade (STLS, STARTTLS) on the protocol's plain ports, TLS from the first byte everywhere else, which
// is also the default port. The certificate is always checked unless --insecure says otherwise.
#pragma once

#include <string>
#include <vector>

#include "accounts/CMailBoxData.h"
#include "host/CommandLine.h"
#include "transport/CBlockingSocket.h"

namespace tavik::host {

enum class MailProtocol { kPop3, kSmtp };

struct SecurityOptions {
    std::string tls;  // "none", "starttls" or "implicit"; empty: chosen by ChooseSecurity
    bool insecure = false;
    std::string trustFile;  // a PEM file of authorities trusted beside the system's
};

// --tls, --insecure and --ca-file, for a command's option list.
std::vector<Option> SecurityOptionList(MailProtocol protocol);
// What --help says about them and the default.
std::string SecurityDetails(MailProtocol protocol);
// Reads them; throws UsageError for a --tls value that is none of the three.
SecurityOptions ReadSecurityOptions(const Arguments& args);

// True when the server's name or address is this machine's loopback (127.0.0.0/8). Looks the name up,
// so Windows Sockets must be started; a name that does not resolve is not loopback.
bool IsLoopback(const std::string& server);
// The security asked for, or the default for the server and port (0: no port given).
CBlockingSocket::SECURITY ChooseSecurity(const SecurityOptions& options, MailProtocol protocol,
                                         const std::string& server, int port);
// The port for the security when none was given: POP3 110 or 995, SMTP 25, 587 or 465.
int DefaultPort(MailProtocol protocol, CBlockingSocket::SECURITY security);
// An account's security setting (CMailBoxData::CONNECTION_SECURITY) as the options of a check or a send
// to that account's server: automatic, and any value this version does not know, leave the choice to
// ChooseSecurity as no --tls does.
SecurityOptions AccountSecurityOptions(DWORD setting);
// The setting's words, as an account command takes and shows them: auto, none, starttls, implicit.
// Parsing gives false for any other text.
bool ParseSecuritySetting(const std::string& text, DWORD& setting);
std::string SecuritySettingName(DWORD setting);
// "TLS from the first byte", "STLS" / "STARTTLS", "no encryption".
std::string SecurityName(MailProtocol protocol, CBlockingSocket::SECURITY security);
// For an error about the server's certificate, what the user can do about it; empty for other errors.
std::string CertificateAdvice(const std::string& error);

}  // namespace tavik::host
