#include "accounts/CMailBoxData.h"

#include <cstdlib>

#include "platform/FileSystem.h"
#include "platform/Kernel.h"
#include "util/CFileName.h"

namespace {

// Locks a record's account lock for a scope; const records lock too (the lock is mutable).
class AccountLock {
public:
    explicit AccountLock(CCriticalSection& cs) : m_lock(&cs, TRUE) {}

private:
    CSingleLock m_lock;
};

}  // namespace

CMailBoxData::CMailBoxData() = default;

CMailBoxData::CMailBoxData(const CMailBoxData& other) {
    AccountLock source(other.m_csLock);
    CopyFields(other);
}

CMailBoxData& CMailBoxData::operator=(const CMailBoxData& other) {
    if (this == &other) return *this;
    // Copied through a snapshot, so that the two locks are never held together (two threads assigning
    // two records to each other would otherwise deadlock).
    CMailBoxData snapshot(other);
    AccountLock self(m_csLock);
    CopyFields(snapshot);
    return *this;
}

CMailBoxData::~CMailBoxData() = default;

void CMailBoxData::CopyFields(const CMailBoxData& other) {
    m_bDeleted = other.m_bDeleted;
    m_bValid = other.m_bValid;
    m_strAccountName = other.m_strAccountName;
    m_strUserName = other.m_strUserName;
    m_strPassword = other.m_strPassword;
    m_strOutgoingUserName = other.m_strOutgoingUserName;
    m_strOutgoingPassword = other.m_strOutgoingPassword;
    m_strEmailAddress = other.m_strEmailAddress;
    m_strIncomingServerName = other.m_strIncomingServerName;
    m_strOutgoingServer = other.m_strOutgoingServer;
    m_strActiveFolder = other.m_strActiveFolder;
    m_strOutgoingProtocol = other.m_strOutgoingProtocol;
    m_strIncomingProtocol = other.m_strIncomingProtocol;
    m_strRealName = other.m_strRealName;
    m_strReplyTo = other.m_strReplyTo;
    m_strOrganization = other.m_strOrganization;
    m_strDataFile = other.m_strDataFile;
    m_strStorageName = other.m_strStorageName;
    m_dwAccountDisabled = other.m_dwAccountDisabled;
    m_dwFiltering = other.m_dwFiltering;
    m_dwLeaveCopy = other.m_dwLeaveCopy;
    m_dwSaveCopy = other.m_dwSaveCopy;
    m_dwRetrieveBody = other.m_dwRetrieveBody;
    m_dwMaxBodySize = other.m_dwMaxBodySize;
    m_dwAlwaysRescan = other.m_dwAlwaysRescan;
    m_dwTimeoutValue = other.m_dwTimeoutValue;
    m_dwCollapsed = other.m_dwCollapsed;
    m_dwSessionMax = other.m_dwSessionMax;
    m_dwProcessLimit = other.m_dwProcessLimit;
    m_dwLeaveFullMsgs = other.m_dwLeaveFullMsgs;
    m_dwNewMsgCount = other.m_dwNewMsgCount;
    m_dwSignature = other.m_dwSignature;
    m_dwCompressDatabase = other.m_dwCompressDatabase;
    m_dwSpamOnly = other.m_dwSpamOnly;
    m_dwAutoDownload = other.m_dwAutoDownload;
    m_dwFilterType = other.m_dwFilterType;
    m_dwSecureLogin = other.m_dwSecureLogin;
    m_dwIncomingSecurity = other.m_dwIncomingSecurity;
    m_dwOutgoingSecurity = other.m_dwOutgoingSecurity;
}

void CMailBoxData::ResetValues() {
    AccountLock lock(m_csLock);
    m_bDeleted = false;
    m_bValid = true;
    m_strAccountName.Empty();
    m_strUserName.Empty();
    m_strPassword.Empty();
    m_strOutgoingUserName.Empty();
    m_strOutgoingPassword.Empty();
    m_strEmailAddress.Empty();
    m_strIncomingServerName.Empty();
    m_strOutgoingServer.Empty();
    m_strActiveFolder = "Inbox";
    m_strOutgoingProtocol = "SMTP";
    m_strIncomingProtocol = "POP3";
    m_strRealName.Empty();
    m_strReplyTo.Empty();
    m_strOrganization.Empty();
    m_strDataFile.Empty();
    m_strStorageName = RandomString(20, 2);
    m_dwAccountDisabled = 0;
    m_dwFiltering = 1;
    m_dwLeaveCopy = 1;
    m_dwSaveCopy = 1;
    m_dwRetrieveBody = 1;
    m_dwMaxBodySize = 64;
    m_dwAlwaysRescan = 0;
    m_dwTimeoutValue = 90;
    m_dwCollapsed = 0;
    m_dwSessionMax = 999;
    m_dwProcessLimit = 0;
    m_dwLeaveFullMsgs = 1;
    m_dwNewMsgCount = 0;
    // Drawn after the storage name, whose last reseed decides it.
    m_dwSignature = static_cast<DWORD>(std::rand());
    m_dwCompressDatabase = 0;
    m_dwSpamOnly = 0;
    m_dwAutoDownload = 0;
    m_dwFilterType = 0;
    m_dwSecureLogin = 0;
    m_dwIncomingSecurity = SECURITY_AUTOMATIC;
    m_dwOutgoingSecurity = SECURITY_AUTOMATIC;
}

// --- getters

#define TAVIK_LOCKED_GETTER(Type, Name, member) \
    Type CMailBoxData::Name() const {           \
        AccountLock lock(m_csLock);             \
        return member;                          \
    }

TAVIK_LOCKED_GETTER(CString, GetAccountName, m_strAccountName)
TAVIK_LOCKED_GETTER(CString, GetEmailAddress, m_strEmailAddress)
TAVIK_LOCKED_GETTER(CString, GetUserName, m_strUserName)
TAVIK_LOCKED_GETTER(CString, GetRealName, m_strRealName)
TAVIK_LOCKED_GETTER(CString, GetOrganization, m_strOrganization)
TAVIK_LOCKED_GETTER(CString, GetReplyTo, m_strReplyTo)
TAVIK_LOCKED_GETTER(CString, GetPassword, m_strPassword)
TAVIK_LOCKED_GETTER(CString, GetIncomingServerName, m_strIncomingServerName)
TAVIK_LOCKED_GETTER(CString, GetOutgoingServer, m_strOutgoingServer)
TAVIK_LOCKED_GETTER(CString, GetIncomingProtocol, m_strIncomingProtocol)
TAVIK_LOCKED_GETTER(CString, GetOutgoingProtocol, m_strOutgoingProtocol)
TAVIK_LOCKED_GETTER(CString, GetDataFile, m_strDataFile)
TAVIK_LOCKED_GETTER(CString, GetStorageName, m_strStorageName)
TAVIK_LOCKED_GETTER(DWORD, GetTimeoutValue, m_dwTimeoutValue)
TAVIK_LOCKED_GETTER(DWORD, GetRetrieveBody, m_dwRetrieveBody)
TAVIK_LOCKED_GETTER(DWORD, GetMaxBodySize, m_dwMaxBodySize)
TAVIK_LOCKED_GETTER(DWORD, GetLeaveCopy, m_dwLeaveCopy)
TAVIK_LOCKED_GETTER(DWORD, GetAlwaysRescan, m_dwAlwaysRescan)
TAVIK_LOCKED_GETTER(DWORD, GetSaveCopy, m_dwSaveCopy)
TAVIK_LOCKED_GETTER(DWORD, GetSpamOnly, m_dwSpamOnly)
TAVIK_LOCKED_GETTER(DWORD, GetSecureLogin, m_dwSecureLogin)
TAVIK_LOCKED_GETTER(DWORD, GetAccountDisabled, m_dwAccountDisabled)
TAVIK_LOCKED_GETTER(DWORD, GetAutoDownload, m_dwAutoDownload)
TAVIK_LOCKED_GETTER(DWORD, GetFiltering, m_dwFiltering)
TAVIK_LOCKED_GETTER(DWORD, GetFilterType, m_dwFilterType)
TAVIK_LOCKED_GETTER(DWORD, GetSessionMax, m_dwSessionMax)
TAVIK_LOCKED_GETTER(DWORD, GetProcessLimit, m_dwProcessLimit)
TAVIK_LOCKED_GETTER(DWORD, GetNewMsgCount, m_dwNewMsgCount)
TAVIK_LOCKED_GETTER(DWORD, GetLeaveFullMsgs, m_dwLeaveFullMsgs)
TAVIK_LOCKED_GETTER(DWORD, GetCompressDatabase, m_dwCompressDatabase)
TAVIK_LOCKED_GETTER(DWORD, GetSignature, m_dwSignature)
TAVIK_LOCKED_GETTER(DWORD, GetIncomingSecurity, m_dwIncomingSecurity)
TAVIK_LOCKED_GETTER(DWORD, GetOutgoingSecurity, m_dwOutgoingSecurity)
TAVIK_LOCKED_GETTER(bool, IsValid, m_bValid)
TAVIK_LOCKED_GETTER(bool, IsDeleted, m_bDeleted)
TAVIK_LOCKED_GETTER(bool, IsCollapsed, m_dwCollapsed != 0)

#undef TAVIK_LOCKED_GETTER

// --- groups

void CMailBoxData::GetGeneralData(CString& accountName, CString& realName, CString& emailAddress,
                                  CString& replyTo, CString& organization) const {
    AccountLock lock(m_csLock);
    accountName = m_strAccountName;
    realName = m_strRealName;
    emailAddress = m_strEmailAddress;
    replyTo = m_strReplyTo;
    organization = m_strOrganization;
}

void CMailBoxData::SetGeneralData(CString accountName, CString realName, CString emailAddress,
                                  CString replyTo, CString organization) {
    AccountLock lock(m_csLock);
    m_strAccountName = accountName;
    m_strRealName = realName;
    m_strEmailAddress = emailAddress;
    m_strReplyTo = replyTo;
    m_strOrganization = organization;
}

void CMailBoxData::GetServerData(CString& incomingServer, CString& outgoingServer, CString& incomingProtocol,
                                 CString& outgoingProtocol, CString& userName, CString& password,
                                 CString& outgoingUserName, CString& outgoingPassword) const {
    AccountLock lock(m_csLock);
    incomingServer = m_strIncomingServerName;
    outgoingServer = m_strOutgoingServer;
    incomingProtocol = m_strIncomingProtocol;
    outgoingProtocol = m_strOutgoingProtocol;
    userName = m_strUserName;
    password = m_strPassword;
    outgoingUserName = m_strOutgoingUserName;
    outgoingPassword = m_strOutgoingPassword;
}

void CMailBoxData::SetServerData(CString incomingServer, CString outgoingServer, CString incomingProtocol,
                                 CString outgoingProtocol, CString userName, CString password,
                                 CString outgoingUserName, CString outgoingPassword) {
    AccountLock lock(m_csLock);
    m_strIncomingServerName = incomingServer;
    m_strOutgoingServer = outgoingServer;
    m_strIncomingProtocol = incomingProtocol;
    m_strOutgoingProtocol = outgoingProtocol;
    m_strUserName = userName;
    m_strPassword = password;
    m_strOutgoingUserName = outgoingUserName;
    m_strOutgoingPassword = outgoingPassword;
}

void CMailBoxData::GetAdvancedData(DWORD& accountDisabled, DWORD& filtering, DWORD& leaveCopy,
                                   DWORD& saveCopy, DWORD& retrieveBody, DWORD& maxBodySize,
                                   DWORD& alwaysRescan, DWORD& timeoutValue) const {
    AccountLock lock(m_csLock);
    accountDisabled = m_dwAccountDisabled;
    filtering = m_dwFiltering;
    leaveCopy = m_dwLeaveCopy;
    saveCopy = m_dwSaveCopy;
    retrieveBody = m_dwRetrieveBody;
    maxBodySize = m_dwMaxBodySize;
    alwaysRescan = m_dwAlwaysRescan;
    timeoutValue = m_dwTimeoutValue;
}

void CMailBoxData::SetAdvancedData(DWORD accountDisabled, DWORD filtering, DWORD leaveCopy, DWORD saveCopy,
                                   DWORD retrieveBody, DWORD maxBodySize, DWORD alwaysRescan,
                                   DWORD timeoutValue) {
    AccountLock lock(m_csLock);
    m_dwAccountDisabled = accountDisabled;
    m_dwFiltering = filtering;
    m_dwLeaveCopy = leaveCopy;
    m_dwSaveCopy = saveCopy;
    m_dwRetrieveBody = retrieveBody;
    m_dwMaxBodySize = maxBodySize;
    m_dwAlwaysRescan = alwaysRescan;
    m_dwTimeoutValue = timeoutValue;
}

void CMailBoxData::GetExtraData(DWORD& processLimit, DWORD& sessionMax, DWORD& leaveFullMsgs) const {
    AccountLock lock(m_csLock);
    processLimit = m_dwProcessLimit;
    sessionMax = m_dwSessionMax;
    leaveFullMsgs = m_dwLeaveFullMsgs;
}

void CMailBoxData::SetExtraData(DWORD processLimit, DWORD sessionMax, DWORD leaveFullMsgs) {
    AccountLock lock(m_csLock);
    m_dwProcessLimit = processLimit;
    m_dwSessionMax = sessionMax;
    m_dwLeaveFullMsgs = leaveFullMsgs;
}

// --- single setters

void CMailBoxData::SetAccountDisabled(DWORD disabled) {
    AccountLock lock(m_csLock);
    m_dwAccountDisabled = disabled;
}

void CMailBoxData::SetActiveFolder(CString& folder) {
    AccountLock lock(m_csLock);
    m_strActiveFolder = folder;
}

void CMailBoxData::SetCollapsed(DWORD collapsed) {
    AccountLock lock(m_csLock);
    m_dwCollapsed = collapsed;
}

void CMailBoxData::SetValid(bool valid) {
    AccountLock lock(m_csLock);
    m_bValid = valid;
}

void CMailBoxData::SetCompressDatabase(DWORD compress) {
    AccountLock lock(m_csLock);
    m_dwCompressDatabase = compress;
}

void CMailBoxData::SetSignature(DWORD signature) {
    AccountLock lock(m_csLock);
    m_dwSignature = signature;
}

void CMailBoxData::SetConnectionSecurity(DWORD incoming, DWORD outgoing) {
    AccountLock lock(m_csLock);
    m_dwIncomingSecurity = incoming;
    m_dwOutgoingSecurity = outgoing;
}

void CMailBoxData::SetDataFile(CString path) {
    AccountLock lock(m_csLock);
    m_strDataFile = path;
}

void CMailBoxData::DeleteEntry() {
    AccountLock lock(m_csLock);
    m_bDeleted = true;
}

void CMailBoxData::IncrementNewMsgs(int n) {
    AccountLock lock(m_csLock);
    m_dwNewMsgCount += static_cast<DWORD>(n);
}

void CMailBoxData::ResetNewMsgs() {
    AccountLock lock(m_csLock);
    m_dwNewMsgCount = 0;
}

void CMailBoxData::CreateDataFile(CString userName) {
    char program[MAX_PATH + 1] = {};
    GetModuleFileName(nullptr, program, MAX_PATH);
    // The root part is drive and directory together; the drive is always empty here.
    CString directory = CFileName(program).GetRoot();
    AccountLock lock(m_csLock);
    m_strDataFile.Format("%s%s%s-%s-%u.tvd", "", directory.GetString(), userName.GetString(),
                         m_strAccountName.GetString(), static_cast<unsigned>(m_dwSignature));
}

CString CMailBoxData::RandomString(int length, int kind) {
    CString out;
    // One reading of the clock serves the whole text; each character still reseeds from it.
    const DWORD tick = GetTickCount();
    for (int i = 0; i < length; ++i) {
        std::srand(tick * static_cast<DWORD>(i + 1) * static_cast<DWORD>(length));
        int c = std::rand();
        switch (kind) {
            case 1:
                c %= 122;
                if (c < 48) c += 48;
                if (c >= 58 && c <= 64) c += 7;
                if (c >= 91 && c <= 96) c += 6;
                if ((c & 0xFF) != 0) out += static_cast<char>(c);
                break;
            case 2:
                c %= 122;
                if (c < 65) c = c % 56 + 65;
                if (c >= 91 && c <= 96) c += 6;
                if ((c & 0xFF) != 0) out += static_cast<char>(c);
                break;
            case 3:
                out.AppendFormat("%i", c % 9);
                break;
            default:
                out += static_cast<char>(c & 0xFF);
                break;
        }
    }
    return out;
}
