// tavik scan FILE...: each message file (RFC 822 text) becomes a message record as a fetched header does,
// and the fields the record's header scan found are printed.
#include <fstream>
#include <string>

#include "host/Commands.h"
#include "messages/CMessageList.h"
#include "platform/CTime.h"
#include "transport/CPopMail.h"

namespace tavik::host {

namespace {

// The header is everything before the first empty line (a file without one is all header). The server
// cuts it off for a fetched header (TOP n 0); for a file nobody in the library does, and the record's
// scan would take a body line such as a quoted "Subject:" for a field the header lacks.
std::string ReadHeader(std::istream& in) {
    std::string header, line;
    while (std::getline(in, line)) {
        bool hadNewline = !in.eof();
        std::string bare = line;
        if (!bare.empty() && bare.back() == '\r') bare.pop_back();
        if (bare.empty() && hadNewline) break;
        header += line;
        if (hadNewline) header += '\n';
    }
    return header;
}

void Field(FILE* out, const char* name, const CString& value) {
    std::fprintf(out, "  %-22s %s\n", name, value.IsEmpty() ? "-" : value.GetString());
}

int ScanFile(const Invocation& call, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return call.Fail("cannot open " + path);
    const std::string header = ReadHeader(in);
    in.clear();
    in.seekg(0, std::ios::end);
    const auto fileSize = static_cast<unsigned long long>(in.tellg());

    // The identifier the POP3 client gives a message whose server has no unique id for it: the CRC-32 of
    // the header text.
    unsigned long id = 0;
    CPopMail(nullptr, nullptr, 0).GetIDNumeric(CString(header), id);
    CMessageList record;
    record.SetData(CString(header), static_cast<DWORD>(id), static_cast<DWORD>(fileSize), MsgReceived);

    FILE* out = call.out;
    std::fprintf(out, "%s\n", path.c_str());
    Field(out, "sender", record.GetSenderName());
    Field(out, "sender address", record.GetFormattedSenderName());
    Field(out, "reply-to", record.GetFormattedReplyTo());
    Field(out, "recipient", record.GetReciepient());
    Field(out, "subject", record.GetSubject());
    Field(out, "date as sent", record.GetMessageDate());
    CTime when;
    Field(out, "date as parsed",
          record.GetMessageDate(when) ? when.Format("%Y-%m-%d %H:%M:%S local") : CString());
    Field(out, "message id", record.GetMessageID());
    Field(out, "return path", record.GetReturnPath());
    Field(out, "received from", record.GetReceivedFrom());
    Field(out, "MIME version", record.GetXMimeVersion());
    Field(out, "content type", record.GetContentType());
    Field(out, "transfer encoding", record.GetContentTransferEncoding());
    Field(out, "organization", record.GetOrganization());
    Field(out, "status", record.GetStatus());
    Field(out, "UIDL", record.GetXUIDL());
    CString number;
    number.Format("%08X (CRC-32 of the header)", static_cast<unsigned>(record.GetID()));
    Field(out, "id", number);
    number.Format("%llu octets, header %zu", fileSize, header.size());
    Field(out, "size", number);
    Field(out, "marked deleted", record.IsDeleted() ? "yes (empty header)" : "no");
    return 0;
}

int Run(const Invocation& call) {
    int rc = 0;
    for (const std::string& path : call.args.Positional()) {
        if (ScanFile(call, path) != 0) rc = 1;
    }
    return rc;
}

}  // namespace

const Command& ScanCommand() {
    static const Command command{
        .name = "scan",
        .summary = "scan message files' headers and print the fields found",
        .arguments = "FILE...",
        .minArguments = 1,
        .maxArguments = Command::kAny,
        .details =
            "Each FILE is one message as RFC 822 text; only its header (up to the first empty line) is\n"
            "read. A message without a Message-ID field is given a random one, as the library does.",
        .run = Run,
    };
    return command;
}

}  // namespace tavik::host
