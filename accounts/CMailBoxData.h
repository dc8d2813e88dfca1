// The settings record of one POP3 account: servers, logins, protocol names, the retrieval and filtering
// switches, the message file's path and the account's numeric identifier. CMailBoxProfile adds the
// account's lists, rules, messages and persistence.
//
// Locking: one re-entrant account lock per record. Every setter and every getter takes it, so a user
// interface thread reading while a mail session sets (or the reverse) never sees a half-written text;
// GetActiveFolder is the exception, as it hands out a reference. Nothing here fails or throws.
#pragma once

#include "platform/CCriticalSection.h"
#include "platform/CString.h"
#include "platform/WinTypes.h"

class CMailBoxData {
public:
    // Builds the texts and the lock only: the values come from ResetValues, which CMailBoxProfile's
    // constructor calls. Until then the numbers are 0 and the texts empty.
    CMailBoxData();
    // Every field but the lock, which each record has of its own. The source is read under its lock.
    CMailBoxData(const CMailBoxData& other);
    CMailBoxData& operator=(const CMailBoxData& other);
    virtual ~CMailBoxData();

    // The defaults: "Inbox", "SMTP", "POP3", filtering, leave copy, save copy, retrieve body and leave
    // full messages on, body limit 64, time-out 90, scan limit 999, a new storage name of 20 random
    // letters, then a Signature drawn from rand(); everything else empty or 0, valid, not deleted.
    virtual void ResetValues();

    // --- single values
    CString GetAccountName() const;
    CString GetEmailAddress() const;
    CString GetUserName() const;
    CString GetRealName() const;
    CString GetOrganization() const;
    CString GetReplyTo() const;
    CString GetPassword() const;
    CString GetIncomingServerName() const;
    CString GetOutgoingServer() const;
    CString GetIncomingProtocol() const;
    CString GetOutgoingProtocol() const;
    CString GetDataFile() const;
    // Beyond the classic getters: the name of the account's sub-storage in its user's accounts file.
    CString GetStorageName() const;
    DWORD GetTimeoutValue() const;
    DWORD GetRetrieveBody() const;
    DWORD GetMaxBodySize() const;
    DWORD GetLeaveCopy() const;
    DWORD GetAlwaysRescan() const;
    DWORD GetSaveCopy() const;
    DWORD GetSpamOnly() const;
    DWORD GetSecureLogin() const;
    DWORD GetAccountDisabled() const;
    DWORD GetAutoDownload() const;
    DWORD GetFiltering() const;
    DWORD GetFilterType() const;
    DWORD GetSessionMax() const;
    DWORD GetProcessLimit() const;
    DWORD GetNewMsgCount() const;
    DWORD GetLeaveFullMsgs() const;
    DWORD GetCompressDatabase() const;
    DWORD GetSignature() const;
    bool IsValid() const;
    bool IsDeleted() const;
    bool IsCollapsed() const;
    // Not under the lock: the reference outlives any lock it could take.
    const CString& GetActiveFolder() const { return m_strActiveFolder; }

    // How the connections to the incoming and to the outgoing server are secured. Automatic, the default,
    // leaves it to the host: TLS for any server that is not on this machine. Kept in the account's registry
    // key beside the other settings, and only when not automatic; the storage layout has no room for it,
    // so an account read from storage alone is automatic.
    enum CONNECTION_SECURITY : DWORD {
        SECURITY_AUTOMATIC = 0,
        SECURITY_NONE = 1,     // plain text, the password too
        SECURITY_UPGRADE = 2,  // STLS or STARTTLS after the greeting, on the protocol's plain port
        SECURITY_TLS = 3,      // TLS from the first byte (POP3S, SMTPS)
    };
    DWORD GetIncomingSecurity() const;
    DWORD GetOutgoingSecurity() const;
    void SetConnectionSecurity(DWORD incoming, DWORD outgoing);

    // --- groups, in this argument order
    void GetGeneralData(CString& accountName, CString& realName, CString& emailAddress, CString& replyTo,
                        CString& organization) const;
    void SetGeneralData(CString accountName, CString realName, CString emailAddress, CString replyTo,
                        CString organization);
    void GetServerData(CString& incomingServer, CString& outgoingServer, CString& incomingProtocol,
                       CString& outgoingProtocol, CString& userName, CString& password,
                       CString& outgoingUserName, CString& outgoingPassword) const;
    void SetServerData(CString incomingServer, CString outgoingServer, CString incomingProtocol,
                       CString outgoingProtocol, CString userName, CString password, CString outgoingUserName,
                       CString outgoingPassword);
    void GetAdvancedData(DWORD& accountDisabled, DWORD& filtering, DWORD& leaveCopy, DWORD& saveCopy,
                         DWORD& retrieveBody, DWORD& maxBodySize, DWORD& alwaysRescan,
                         DWORD& timeoutValue) const;
    void SetAdvancedData(DWORD accountDisabled, DWORD filtering, DWORD leaveCopy, DWORD saveCopy,
                         DWORD retrieveBody, DWORD maxBodySize, DWORD alwaysRescan, DWORD timeoutValue);
    void GetExtraData(DWORD& processLimit, DWORD& sessionMax, DWORD& leaveFullMsgs) const;
    void SetExtraData(DWORD processLimit, DWORD sessionMax, DWORD leaveFullMsgs);

    // --- single setters
    void SetAccountDisabled(DWORD disabled);
    void SetActiveFolder(CString& folder);
    void SetCollapsed(DWORD collapsed);
    void SetValid(bool valid);
    void SetCompressDatabase(DWORD compress);
    void SetSignature(DWORD signature);
    void SetDataFile(CString path);
    // The next save removes the account's registry key and sub-storage.
    void DeleteEntry();
    void IncrementNewMsgs(int n);
    void ResetNewMsgs();

    // DataFile becomes "<program directory><userName>-<AccountName>-<Signature>.tvd", the program
    // directory being the one GetModuleFileName gives (the host's data directory on Linux).
    void CreateDataFile(CString userName);

protected:
    // length characters, the generator reseeded from the tick count before each one: kind 1 letters and
    // digits, 2 letters (A-Z, a-y), 3 decimal digits 0-8, any other kind raw bytes. Empty for length <= 0.
    CString RandomString(int length, int kind);

    bool m_bDeleted = false;
    bool m_bValid = true;
    CString m_strAccountName;
    CString m_strUserName;
    CString m_strPassword;
    CString m_strOutgoingUserName;
    CString m_strOutgoingPassword;
    CString m_strEmailAddress;
    CString m_strIncomingServerName;
    CString m_strOutgoingServer;
    CString m_strActiveFolder;
    CString m_strOutgoingProtocol;
    CString m_strIncomingProtocol;
    CString m_strRealName;
    CString m_strReplyTo;
    CString m_strOrganization;
    CString m_strDataFile;
    CString m_strStorageName;
    DWORD m_dwAccountDisabled = 0;
    DWORD m_dwFiltering = 0;
    DWORD m_dwLeaveCopy = 0;
    DWORD m_dwSaveCopy = 0;
    DWORD m_dwRetrieveBody = 0;
    DWORD m_dwMaxBodySize = 0;
    DWORD m_dwAlwaysRescan = 0;
    DWORD m_dwTimeoutValue = 0;
    DWORD m_dwCollapsed = 0;
    DWORD m_dwSessionMax = 0;
    DWORD m_dwProcessLimit = 0;
    DWORD m_dwLeaveFullMsgs = 0;
    DWORD m_dwNewMsgCount = 0;
    DWORD m_dwSignature = 0;
    DWORD m_dwCompressDatabase = 0;
    mutable CCriticalSection m_csLock;
    DWORD m_dwSpamOnly = 0;
    DWORD m_dwAutoDownload = 0;
    DWORD m_dwFilterType = 0;
    DWORD m_dwSecureLogin = 0;
    DWORD m_dwIncomingSecurity = SECURITY_AUTOMATIC;
    DWORD m_dwOutgoingSecurity = SECURITY_AUTOMATIC;

private:
    void CopyFields(const CMailBoxData& other);
};
