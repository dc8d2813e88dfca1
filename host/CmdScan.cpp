// tavik scan FILE...: runs each message file (RFC 822 text) through the message record's header scan and
// prints what it found.
#include <cstdio>
#include <fstream>
#include <string>

#include "host/Commands.h"
#include "messages/CMessageList.h"
#include "platform/CTime.h"
#include "transport/CRC32i.h"

namespace {

// The storage-name hash is the record's own helper; the host reaches it through a subclass.
class ScanRecord : public CMessageList {
public:
    using CMessageList::GetHash;
};

// The header is everything before the first empty line (a file without one is all header); the body is
// never read.
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

void Field(const char* name, const CString& value) {
    std::printf("  %-22s %s\n", name, value.IsEmpty() ? "-" : value.GetString());
}

int ScanFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "tavik scan: cannot open %s\n", path.c_str());
        return 1;
    }
    const std::string header = ReadHeader(in);
    in.clear();
    in.seekg(0, std::ios::end);
    const auto fileSize = static_cast<unsigned long long>(in.tellg());

    CRC32i crc;
    crc.Update(reinterpret_cast<unsigned char*>(const_cast<char*>(header.data())),
               static_cast<ULONG>(header.size()));
    ScanRecord record;
    record.SetData(CString(header), crc.Final(), static_cast<DWORD>(fileSize), MsgReceived);

    std::printf("%s\n", path.c_str());
    Field("sender", record.GetSenderName());
    Field("sender address", record.GetFormattedSenderName());
    Field("reply-to", record.GetFormattedReplyTo());
    Field("recipient", record.GetReciepient());
    Field("subject", record.GetSubject());
    Field("date as sent", record.GetMessageDate());
    CTime when;
    Field("date as parsed", record.GetMessageDate(when) ? when.Format("%Y-%m-%d %H:%M:%S local") : CString());
    Field("message id", record.GetMessageID());
    Field("return path", record.GetReturnPath());
    Field("received from", record.GetReceivedFrom());
    Field("MIME version", record.GetXMimeVersion());
    Field("content type", record.GetContentType());
    Field("transfer encoding", record.GetContentTransferEncoding());
    Field("organization", record.GetOrganization());
    Field("status", record.GetStatus());
    Field("UIDL", record.GetXUIDL());
    CString number;
    number.Format("%08X (CRC-32 of the header)", static_cast<unsigned>(record.GetID()));
    Field("id", number);
    number.Format("%llu octets, header %zu", fileSize, header.size());
    Field("size", number);
    Field("hash of message id", ScanRecord::GetHash(record.GetMessageID(), 10));
    Field("marked deleted", record.IsDeleted() ? "yes (empty header)" : "no");
    return 0;
}

}  // namespace

int tavik::host::RunScan(const Args& args) {
    if (args.empty()) {
        std::fprintf(stderr, "usage: tavik scan FILE...\n");
        return 2;
    }
    int rc = 0;
    for (const std::string& path : args) {
        if (ScanFile(path) != 0) rc = 1;
    }
    return rc;
}
