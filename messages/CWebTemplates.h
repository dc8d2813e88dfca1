// The record that ties an account to the HTML index file in which the host shows its messages, with a
// flag for the account shown now. One registry key per account under a key the host chooses; the
// record's identity is its signature, the CRC-32 of the account name.
//
// Registry failures are not reported: a value that cannot be read leaves its member as it was, and
// write results are ignored.
#pragma once

#include "platform/CString.h"
#include "platform/WinTypes.h"

class CWebTemplates {
public:
    // Empty members, then LoadRegistryData(key) when key is not empty.
    CWebTemplates(CString key = "");
    CWebTemplates(const CWebTemplates& other) = default;
    CWebTemplates& operator=(const CWebTemplates& other) = default;
    virtual ~CWebTemplates() = default;

    // Account name and index file empty, active 0, removal mark cleared; the signature stays.
    void ResetValues();
    // key is the record's own key under HKEY_CURRENT_USER (parent, backslash, account name). Empty:
    // nothing. A key that existed is read (missing values keep their members) and the signature becomes
    // SignatureOf(account name). A key that did not exist is created and given empty values.
    void LoadRegistryData(CString key);
    // parentKey is the key above the record's: the record lives in parent\account name. Empty: nothing.
    // With the removal mark set, that key is deleted instead. A record without an account name is the
    // parent key itself (so a load that creates a key fills it): it is written there but never deleted.
    // A name holding a backslash would name a deeper key: such a record is neither written nor deleted.
    void SaveRegistryData(CString parentKey);

    void SetAccountName(CString name) { m_strAccountName = name; }
    void SetIndexFile(CString path) { m_strIndexFile = path; }
    void SetActiveAccount(DWORD active) { m_dwActiveAccount = active; }
    void SetSignature(DWORD signature) { m_dwSignature = signature; }
    const CString& GetAccountName() const { return m_strAccountName; }
    const CString& GetIndexFile() const { return m_strIndexFile; }
    const DWORD& GetActiveAccount() const { return m_dwActiveAccount; }
    const DWORD& GetSignature() const { return m_dwSignature; }

    // The removal mark: the next SaveRegistryData deletes the record's key.
    void DeleteEntry() { m_dwRemove = 1; }
    bool IsDeleted() const { return m_dwRemove != 0; }

    // The CRC-32 of the name's characters followed by one zero byte.
    static DWORD SignatureOf(const CString& accountName);

    // Records compare by signature; against a text, by the index file (exactly).
    bool operator==(const CWebTemplates& other) const { return m_dwSignature == other.m_dwSignature; }
    bool operator!=(const CWebTemplates& other) const { return m_dwSignature != other.m_dwSignature; }
    bool operator<(const CWebTemplates& other) const { return m_dwSignature < other.m_dwSignature; }
    bool operator>(const CWebTemplates& other) const { return m_dwSignature > other.m_dwSignature; }
    bool operator==(const DWORD& signature) const { return m_dwSignature == signature; }
    bool operator==(const CString& indexFile) const { return m_strIndexFile.Compare(indexFile) == 0; }

private:
    DWORD m_dwReserved = 0;  // copied with the record, otherwise unused
    DWORD m_dwRemove = 0;
    CString m_strAccountName;
    CString m_strIndexFile;
    DWORD m_dwActiveAccount = 0;
    // Nothing sets it but SetSignature and the load of an existing key; 0 before either.
    DWORD m_dwSignature = 0;
};
