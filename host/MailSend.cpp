#include "host/MailSend.h"

#include <filesystem>
#include <fstream>
#include <memory>

#include "platform/Winsock.h"
#include "transport/CAppOctetStream.h"
#include "transport/CMIMEMessage.h"
#include "transport/CSMTP.h"

namespace tavik::host {

namespace {

std::string Trimmed(const std::string& s) {
    const char* space = " \t\r\n";
    size_t first = s.find_first_not_of(space);
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(space) - first + 1);
}

// The client with its dialogue shown: commands as "> ...", the message as its size, replies as "< ..."
// as they arrive. It sees the traffic through the socket's virtual Send and Receive.
class ShownSMTP : public CSMTP {
public:
    ShownSMTP(int timeLimit, FILE* out) : CSMTP(nullptr, timeLimit), m_out(out) {}

    int Send(const char* data, int size, int seconds) override {
        ShowSecurity();
        const int sent = CSMTP::Send(data, size, seconds);
        const std::string text(data, static_cast<size_t>(sent));
        if (!GetCredentialsMask().IsEmpty()) {
            Show("> ", std::string(GetCredentialsMask()) + "\n");
        } else if (m_inData && text == "\r\n.\r\n") {
            std::fprintf(m_out, "> (the message, %llu bytes)\n> .\n", m_dataBytes);
            m_inData = false;
        } else if (m_inData) {
            m_dataBytes += static_cast<unsigned long long>(sent);
        } else {
            Show("> ", text);
            m_dataAsked = text == "DATA\r\n";
        }
        return sent;
    }

    int Receive(char* buffer, int size, int seconds) override {
        ShowSecurity();
        const int got = CSMTP::Receive(buffer, size, seconds);
        if (got > 0) {
            const std::string text(buffer, static_cast<size_t>(got));
            Show("< ", text);
            if (m_dataAsked && text.rfind("354", 0) == 0) {
                m_inData = true;
                m_dataBytes = 0;
            }
            m_dataAsked = false;
        }
        return got;
    }

    // QUIT while the dialogue is still shown (the base class's destructor no longer sees this class).
    // A failure here changes nothing for the message, which the server has or has not taken already.
    void Quit() {
        CString reply;
        try {
            Disconnect(reply);
        } catch (CSMTPException* e) {
            e->Delete();
        }
        Cleanup();
    }

private:
    // Once, when the connection has become encrypted: before the first command or reply that is.
    void ShowSecurity() {
        if (m_securityShown || GetSecurity() == SECURITY_NONE || !IsSecure()) return;
        m_securityShown = true;
        Show("* ", "Secure connection: " + std::string(GetSecurityDescription()) + "\n");
    }

    // Line by line with the prefix at each line start; a reply that arrives in pieces continues its line.
    void Show(const char* prefix, const std::string& text) {
        for (char c : text) {
            if (c == '\r') continue;
            if (m_lineStart) std::fputs(prefix, m_out);
            std::fputc(c, m_out);
            m_lineStart = c == '\n';
        }
        std::fflush(m_out);
    }

    FILE* m_out;
    bool m_lineStart = true;
    bool m_dataAsked = false;
    bool m_inData = false;
    bool m_securityShown = false;
    unsigned long long m_dataBytes = 0;
};

bool IsUtf8(const std::string& s) {
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (n == 0 || i + n > s.size()) return false;
        for (size_t k = 1; k < n; ++k)
            if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2) return false;
        i += n;
    }
    return true;
}

bool HasEightBit(const std::string& s) {
    for (char c : s)
        if (static_cast<unsigned char>(c) >= 0x80) return true;
    return false;
}

std::unique_ptr<CMailMessage> Compose(const SendOptions& o) {
    const std::string body = CrlfText(o.body);
    // 8-bit text goes in a MIME text part, where it can say its character set.
    const bool eightBit = HasEightBit(body);
    const bool mime = !o.attachments.empty() || eightBit;
    std::unique_ptr<CMailMessage> message;
    if (mime) {
        auto m = std::make_unique<CMIMEMessage>();
        if (!body.empty())
            m->AddMIMEPart(body.c_str(), CMIMEMessage::TEXT_PLAIN,
                           eightBit && IsUtf8(body) ? "; charset=utf-8" : "", CMIMEMessage::_7BIT, 0);
        for (const std::string& file : o.attachments) m->AddMIMEPart(file.c_str());
        message = std::move(m);
    } else {
        message = std::make_unique<CMailMessage>();
        message->m_sBody = body.c_str();
    }
    message->m_sFrom = o.from.c_str();
    message->m_sSubject = o.subject.c_str();
    for (const std::string& to : o.to) {
        std::string address, name;
        SplitRecipient(to, address, name);
        message->AddRecipient(address.c_str(), name.c_str());
    }
    return message;
}

// What keeps a message from going out wrong: every recipient readable, every attachment a file that can
// be read whole (the library would send an unreadable one as an empty part without a word).
std::string Problem(const SendOptions& o) {
    if (o.to.empty()) return "no recipient";
    for (const std::string& to : o.to) {
        std::string address, name;
        if (!SplitRecipient(to, address, name)) return "cannot read the recipient \"" + to + "\"";
    }
    for (const std::string& file : o.attachments) {
        std::error_code ec;
        if (!std::filesystem::is_regular_file(file, ec)) return "no file to attach at " + file;
        if (std::filesystem::file_size(file, ec) > CAppOctetStream::kMaxFileSize)
            return "too large to attach: " + file;
        if (!std::ifstream(file, std::ios::binary)) return "cannot read " + file;
        if (Trimmed(file) != file)
            return "an attachment's name cannot start or end with white space: " + file;
    }
    return "";
}

}  // namespace

bool SplitRecipient(const std::string& text, std::string& address, std::string& name) {
    const size_t open = text.find('<');
    if (open == std::string::npos) {
        address = Trimmed(text);
        name.clear();
    } else {
        const size_t close = text.find('>', open);
        if (close == std::string::npos || !Trimmed(text.substr(close + 1)).empty()) return false;
        address = Trimmed(text.substr(open + 1, close - open - 1));
        name = Trimmed(text.substr(0, open));
    }
    return !address.empty();
}

int RunMailSend(const SendOptions& options, FILE* out, FILE* err) {
    if (std::string problem = Problem(options); !problem.empty()) {
        std::fprintf(err, "tavik send: %s\n", problem.c_str());
        return 1;
    }
    std::unique_ptr<CMailMessage> message = Compose(options);
    // The host starts Windows Sockets; the library never does it for its clients.
    if (WSAStartup(0x0101, nullptr) != 0) {
        std::fprintf(err, "tavik send: cannot start Windows Sockets\n");
        return 1;
    }
    std::string error;
    {
        ShownSMTP smtp(options.timeLimit, out);
        const CBlockingSocket::SECURITY security =
            ChooseSecurity(options.security, MailProtocol::kSmtp, options.server, options.port);
        const int port = options.port != 0 ? options.port : DefaultPort(MailProtocol::kSmtp, security);
        smtp.SetSecurity(security, !options.security.insecure, options.security.trustFile.c_str());
        smtp.SetLogin(options.user.c_str(), options.password.c_str());
        try {
            CString reply;
            if (!smtp.Connect(options.server.c_str(), reply, port))
                error = "the server closed the connection without a greeting";
            else if (!smtp.SendMessage(message.get(), reply))
                error = "the server closed the connection before it took the message";
        } catch (CSMTPException* e) {
            error = e->GetErrorMessage().GetString();
            e->Delete();
        }
        smtp.Quit();
    }
    WSACleanup();
    if (!error.empty()) {
        std::fprintf(err, "tavik send: %s\n", error.c_str());
        if (const std::string advice = CertificateAdvice(error); !advice.empty())
            std::fprintf(err, "tavik send: %s\n", advice.c_str());
        return 1;
    }
    return 0;
}

std::string CrlfText(std::string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 40);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r') {
            out += "\r\n";
            if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
        } else if (text[i] == '\n') {
            out += "\r\n";
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace tavik::host
