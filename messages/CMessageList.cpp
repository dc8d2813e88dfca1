#include "messages/CMessageList.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "messages/internal/CardCipher.h"
#include "platform/Kernel.h"
#include "util/CStringToken.h"
#include "util/XString.h"

namespace {

bool matchField(const char* line, const char* keyword, CString& field);

// Every keyword test sets the shared separator to ':' as IntelliScan does, which also saves the one
// before it; two settings leave the same state as any larger number, so a header makes at most two
// instead of one per test (each a pair of atomic exchanges).
void settleSeparator(int scans) {
    for (int i = 0; i < scans && i < 2; ++i) XString::SetSeparator(':');
}

}  // namespace

IMPLEMENT_DYNAMIC(CMessageList, CObject)

CMessageList::CMessageList(IStorage* parent) : m_pParentStorage(parent), m_pBodyBuffer(nullptr) { Reset(); }

CMessageList::CMessageList(const CMessageList& other) : CObject(other), m_pBodyBuffer(nullptr) {
    CopyFrom(other);
}

CMessageList& CMessageList::operator=(const CMessageList& other) {
    if (this != &other) CopyFrom(other);
    return *this;
}

CMessageList::~CMessageList() { delete m_pBodyBuffer; }

// The lock belongs to the object and the body buffer is a transient of one load or save: neither is copied.
void CMessageList::CopyFrom(const CMessageList& o) {
    m_pParentStorage = o.m_pParentStorage;
    m_strReturnPath = o.m_strReturnPath;
    m_strReceivedFrom = o.m_strReceivedFrom;
    m_strMessageID = o.m_strMessageID;
    m_strDate = o.m_strDate;
    m_strSenderName = o.m_strSenderName;
    m_strReplyTo = o.m_strReplyTo;
    m_strMimeVersion = o.m_strMimeVersion;
    m_strRecipient = o.m_strRecipient;
    m_strSubject = o.m_strSubject;
    m_strContentType = o.m_strContentType;
    m_strContentTransferEncoding = o.m_strContentTransferEncoding;
    m_strUIDL = o.m_strUIDL;
    m_strStatus = o.m_strStatus;
    m_strOrganization = o.m_strOrganization;
    m_strFolderLocation = o.m_strFolderLocation;
    m_strDataFile = o.m_strDataFile;
    m_strStorageName = o.m_strStorageName;
    m_strServerName = o.m_strServerName;
    m_strEmailAddress = o.m_strEmailAddress;
    m_strOutgoingServer = o.m_strOutgoingServer;
    m_strAccountName = o.m_strAccountName;
    m_bSeen = o.m_bSeen;
    m_bRead = o.m_bRead;
    m_bValid = o.m_bValid;
    m_bDeleted = o.m_bDeleted;
    m_bHasBody = o.m_bHasBody;
    m_bDirty = o.m_bDirty;
    m_dwEncrypted = o.m_dwEncrypted;
    m_dwCompressed = o.m_dwCompressed;
    m_dwSize = o.m_dwSize;
    m_dwID = o.m_dwID;
    m_dwSpamTag = o.m_dwSpamTag;
    m_MsgType = o.m_MsgType;
    m_strHeader = o.m_strHeader;
    delete m_pBodyBuffer;
    m_pBodyBuffer = nullptr;
}

void CMessageList::Reset() {
    m_dwSize = 0;
    m_dwID = 0;
    m_dwSpamTag = 0;
    m_MsgType = MsgReceived;
    m_bSeen = m_bRead = m_bDeleted = m_bHasBody = m_bDirty = false;
    m_bValid = true;
    m_dwEncrypted = m_dwCompressed = 0;
    for (CString* s :
         {&m_strReturnPath, &m_strReceivedFrom, &m_strMessageID, &m_strDate, &m_strSenderName, &m_strReplyTo,
          &m_strMimeVersion, &m_strRecipient, &m_strSubject, &m_strContentType, &m_strContentTransferEncoding,
          &m_strUIDL, &m_strStatus, &m_strOrganization, &m_strServerName, &m_strOutgoingServer,
          &m_strEmailAddress, &m_strDataFile, &m_strHeader}) {
        s->Empty();
    }
    m_strFolderLocation = "inbox";
    m_strStorageName = RandomString(20, 1);
}

// --- filling

void CMessageList::SetData(const CString& header, DWORD id, DWORD size, enum_MsgType type) {
    m_bDirty = true;
    ParseHeader(header);
    m_dwID = id;
    m_dwSize = size;
    m_MsgType = type;
}

void CMessageList::SetMailBox(const CString& serverName, const CString& emailAddress,
                              const CString& outgoingServer, const CString& accountName) {
    m_strServerName = serverName;
    m_strEmailAddress = emailAddress;
    m_strOutgoingServer = outgoingServer;
    m_strAccountName = accountName;
}

void CMessageList::SetSeen(bool seen) {
    CSingleLock lock(&m_csLock, TRUE);
    if (m_bSeen != seen) {
        m_bSeen = seen;
        m_bDirty = true;
    }
}

void CMessageList::SetRead(bool read) {
    CSingleLock lock(&m_csLock, TRUE);
    if (m_bRead != read) {
        m_bRead = read;
        m_bDirty = true;
    }
}

void CMessageList::SetValid(bool valid) {
    CSingleLock lock(&m_csLock, TRUE);
    m_bValid = valid;
}

void CMessageList::SetDeleted(bool deleted) {
    CSingleLock lock(&m_csLock, TRUE);
    m_bDeleted = deleted;
}

void CMessageList::SetDataFile(const CString& dataFile) {
    CSingleLock lock(&m_csLock, TRUE);
    if (m_strDataFile.CompareNoCase(dataFile) != 0) {
        m_strDataFile = dataFile;
        m_bDirty = true;
    }
}

void CMessageList::SetFolderLocation(const CString& folder) {
    CSingleLock lock(&m_csLock, TRUE);
    if (m_strFolderLocation.CompareNoCase(folder) != 0) {
        m_strFolderLocation = folder;
        m_bDirty = true;
    }
}

void CMessageList::SetSpamTag() {
    CSingleLock lock(&m_csLock, TRUE);
    if (m_dwSpamTag == 0) m_dwSpamTag = 1;
}

void CMessageList::ClearSpamTag() {
    if (m_dwSpamTag != 0) m_dwSpamTag = 0;
}

// --- header scan

void CMessageList::ParseHeader(const CString& header) {
    // Lines are cut in place in one copy of the header. A run of line ends is one cut, so blank lines
    // vanish and folded lines stand alone (and never match, since their "name" starts with blanks).
    std::string text(header.GetString());
    int scans = 0;
    for (size_t at = 0; at < text.size();) {
        size_t end = at;
        while (end < text.size() && text[end] != '\r' && text[end] != '\n') ++end;
        if (end > at) {
            if (end < text.size()) text[end] = '\0';
            scans += ScanLine(text.c_str() + at);
        }
        at = end + 1;
    }
    settleSeparator(scans);
    if (m_strReplyTo.IsEmpty()) m_strReplyTo = GetFormattedSenderName();
    if (m_strMessageID.IsEmpty()) {
        m_strMessageID = RandomString(20, 1);
        m_bDirty = true;
    }
    m_strHeader = header;
    if (header.IsEmpty()) {
        CSingleLock lock(&m_csLock, TRUE);
        m_bDeleted = true;
    }
}

void CMessageList::InspectString(const char* line) { settleSeparator(ScanLine(line)); }

int CMessageList::ScanLine(const char* line) {
    struct Rule {
        CString CMessageList::*field;
        const char* keywords[3];
    };
    // Order matters only through the empty-field test: the first line naming a field wins.
    static const Rule kRules[] = {
        {&CMessageList::m_strReturnPath, {"RETURN-PATH"}},
        {&CMessageList::m_strReceivedFrom, {"RECEIVED"}},
        {&CMessageList::m_strMessageID, {"MESSAGE-ID"}},
        {&CMessageList::m_strDate, {"DATE"}},
        {&CMessageList::m_strSenderName, {"FROM", "SENDER", "ORIGINATOR"}},
        {&CMessageList::m_strReplyTo, {"REPLY-TO"}},
        {&CMessageList::m_strMimeVersion, {"MIME-VERSION"}},
        {&CMessageList::m_strRecipient, {"RECIPIENTS", "TO"}},
        {&CMessageList::m_strSubject, {"SUBJECT"}},
        {&CMessageList::m_strContentType, {"CONTENT-TYPE"}},
        {&CMessageList::m_strContentTransferEncoding, {"CONTENT-TRANSFER-ENCODING"}},
        {&CMessageList::m_strUIDL, {"UIDL"}},
        {&CMessageList::m_strStatus, {"STATUS"}},
        {&CMessageList::m_strOrganization, {"ORGANIZATION"}},
    };
    int scans = 0;
    for (const Rule& rule : kRules) {
        CString& field = this->*rule.field;
        if (!field.IsEmpty()) continue;
        for (const char* keyword : rule.keywords) {
            if (keyword == nullptr) continue;
            ++scans;
            if (matchField(line, keyword, field)) return scans;
        }
    }
    return scans;
}

bool CMessageList::IntelliScan(const char* line, const char* keyword, CString& field) {
    XString::SetSeparator(':');
    return matchField(line, keyword, field);
}

namespace {

bool matchField(const char* line, const char* keyword, CString& field) {
    // The name equals the keyword when the line starts with it (no keyword holds a colon) and the name
    // ends right there. Comparing from the front first keeps a long line from being read once per keyword.
    size_t n = 0;
    for (; keyword[n] != '\0'; ++n) {
        char a = line[n], b = keyword[n];
        if (b == ':') return false;  // a name never holds one
        if (a >= 'a' && a <= 'z') a = static_cast<char>(a - 'a' + 'A');
        if (b >= 'a' && b <= 'z') b = static_cast<char>(b - 'a' + 'A');
        if (a != b) return false;  // also stops at the end of a shorter line, as no keyword holds a zero
    }
    if (line[n] != ':' && line[n] != '\0') return false;
    const char* colon = line[n] == ':' ? line + n : nullptr;
    CString value(colon ? colon + 1 : "");
    value.Trim();
    field = value;
    return true;
}

}  // namespace

// --- addresses

namespace {
// Text strictly between the first '<' and the first '>'; empty when either is missing or '>' comes first.
CString betweenBrackets(const CString& text) {
    int open = text.Find('<');
    int close = text.Find('>');
    if (open < 0 || close < 0 || close <= open) return CString();
    return text.Mid(open + 1, close - open - 1);
}
}  // namespace

CString CMessageList::GetFormattedSenderName() const {
    CString bare = betweenBrackets(m_strSenderName);
    return bare.IsEmpty() ? m_strSenderName : bare;
}

CString CMessageList::GetFormattedReplyTo() const {
    const CString& replyTo = GetReplyTo();
    if (replyTo.Find('<') < 0 || replyTo.Find('>') < 0) return replyTo;
    CString bare = betweenBrackets(replyTo);
    return bare.IsEmpty() ? GetSenderName() : bare;
}

// --- date

namespace {
// atoi that cannot overflow: values far outside any calendar are clamped, which the time conversion
// then rejects or carries as it would the real number.
int decimal(const CString& text) {
    long v = std::strtol(text.GetString(), nullptr, 10);
    if (v > 1000000) v = 1000000;
    if (v < -1000000) v = -1000000;
    return static_cast<int>(v);
}
}  // namespace

bool CMessageList::GetMessageDate(CTime& when) const {
    if (m_strDate.IsEmpty()) return false;
    static const char* const kMonths[12] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                            "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};
    XString date = XString(m_strDate).Upper();
    XString::SetSeparator(' ');
    int first = (date.GetAt(0) >= 'A' && date.GetAt(0) <= 'Z') ? 1 : 0;
    int day = decimal(date.Element(first));
    XString monthName = date.Element(first + 1);
    int month = 0;
    for (int i = 0; i < 12; ++i) {
        if (monthName == kMonths[i]) month = i + 1;
    }
    if (month == 0) return false;
    XString yearText = date.Element(first + 2);
    int year = decimal(yearText);
    if (yearText.GetLength() < 4) year += year >= 70 ? 1900 : 2000;
    XString time = date.Element(first + 3);
    XString::SetSeparator(':');
    int hour = decimal(time.Element(0));
    int minute = decimal(time.Element(1));
    int second = decimal(time.Element(2));
    when = CTime(year, month, day, hour, minute, second, -1);
    return true;
}

// --- search

bool CMessageList::Find(const CString& text, bool matchCase, FindType type) {
    XString haystack;
    if (HasBody()) {
        CString body;
        GetBody(body);
        haystack = body;
    } else {
        haystack = m_strHeader;
    }
    // Upper-cased once here rather than by NCFind for every word: a search for many words in a long body
    // would otherwise copy the body once per word.
    const XString upper = matchCase ? XString() : haystack.Upper();
    auto occurs = [&](const char* what) {
        return matchCase ? haystack.Find(what) >= 0 : upper.Find(XString(what).Upper()) >= 0;
    };
    switch (type) {
        case FindPhrase:
            return occurs(text);
        case FindAllWords:
        case FindAnyWord: {
            CStringToken words(text.GetString(), " ");
            if (words.Size() == 0) return false;
            for (auto it = words.Begin(); it != words.End(); ++it) {
                bool found = occurs(it->c_str());
                if (type == FindAllWords && !found) return false;
                if (type == FindAnyWord && found) return true;
            }
            return type == FindAllWords;
        }
    }
    return false;
}

// --- generated names

CString CMessageList::RandomString(int length, int mode) {
    CString out;
    // Reseeding per character from the tick count is what makes names made in the same millisecond
    // repeat; kept so that names come out as existing stores expect. One reading of the clock serves
    // the whole name (a load makes a name for every record it constructs).
    const DWORD tick = GetTickCount();
    for (int i = 0; i < length; ++i) {
        std::srand(tick * static_cast<DWORD>(i + 1) * static_cast<DWORD>(length));
        int c = std::rand();
        switch (mode) {
            case 1:
                c %= 122;
                if (c < 48) c += 48;
                if (c >= 58 && c < 65) c += 7;
                if (c >= 91 && c < 97) c += 6;
                if ((c & 0xFF) != 0) out += static_cast<char>(c);
                break;
            case 2:
                c %= 122;
                if (c < 65) c = c % 56 + 65;
                if (c >= 91 && c < 97) c += 6;
                if ((c & 0xFF) != 0) out += static_cast<char>(c);
                break;
            case 3:
                out.AppendFormat("%d", c % 9);
                break;
            default:
                out += static_cast<char>(c & 0xFF);
                break;
        }
    }
    return out;
}

CString CMessageList::GetHash(const char* text, int length) {
    if (text == nullptr || length <= 0) return CString();
    std::string bytes = tavik::lib::CardCipher::Hash(text, std::strlen(text), static_cast<size_t>(length));
    bytes.resize(std::strlen(bytes.c_str()));  // used as a C string: cut at the first zero byte
    std::vector<char> digits(bytes.size() * 8 / 5 + 2);
    int n = baseConv(bytes.data(), 8, static_cast<int>(bytes.size()), digits.data(), 5);
    static const char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    CString out;
    for (int i = 0; i < n; ++i) out += kAlphabet[static_cast<unsigned char>(digits[static_cast<size_t>(i)])];
    return out;
}

int CMessageList::baseConv(const char* in, int inBits, int count, char* out, int outBits) {
    // Wider digits could overflow the 32-bit accumulator.
    if (inBits < 1 || outBits < 1 || inBits + outBits > 31 || count < 0) return 0;
    // Signed accumulator and signed input bytes: a high byte's sign bits spill into the next digits,
    // which is part of the names already stored.
    std::int32_t acc = 0;
    int pending = 0;
    int i = 0;
    int n = 0;
    const std::int32_t mask = (std::int32_t{1} << outBits) - 1;
    while (i < count) {
        if (pending < outBits) {
            acc += static_cast<std::int32_t>(static_cast<signed char>(in[i])) * (std::int32_t{1} << pending);
            pending += inBits;
            ++i;
        } else {
            out[n++] = static_cast<char>(acc & mask);
            acc >>= outBits;
            pending -= outBits;
        }
    }
    while (pending > 0) {
        out[n++] = static_cast<char>(acc & mask);
        acc >>= outBits;
        pending -= outBits;
    }
    return n;
}
