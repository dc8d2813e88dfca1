// A telephone number with a description, kept in the registry: one key per record, named by the number,
// under a parent key the caller gives (a user's address-book key), holding "Phone Number",
// "Description" and "Profile ID". Registry failures are not reported: values that cannot be read leave
// their members, failed writes are ignored.
#pragma once

#include <list>

#include "accounts/CRegistryManager.h"
#include "platform/CString.h"

class CPhoneEntry : public CRegistryManager {
    DECLARE_DYNAMIC(CPhoneEntry)

public:
    // ResetValues.
    CPhoneEntry();
    CPhoneEntry(const CPhoneEntry& other);
    CPhoneEntry& operator=(const CPhoneEntry& other);
    ~CPhoneEntry() override;

    // Not deleted, texts empty, a new profile id (the generator seeded with the tick count, then rand).
    void ResetValues();

    void DeleteEntry() { m_bDeleted = true; }
    bool IsDeleted() const { return m_bDeleted; }
    DWORD GetProfileID() const { return m_dwProfileID; }
    const CString& GetPhoneNumber() const { return m_strPhoneNumber; }
    const CString& GetDescription() const { return m_strDescription; }
    void SetPhoneNumber(CString number) { m_strPhoneNumber = number; }
    void SetDescription(CString description) { m_strDescription = description; }

    // Writes the record into parentKey\number, creating it; a deleted record deletes that key instead.
    // Refused (false, nothing touched) when the parent key or the number is empty, or when the number
    // holds a backslash, which would name a deeper key than the record's own: numbers are never escaped,
    // so that the key keeps the name other readers of this registry expect.
    bool SaveRegistryData(CString parentKey);
    bool SaveRegistryData(UINT parentKeyId);
    // Reads the record's own key (created when missing); a missing value leaves its member.
    void LoadRegistryData(CString key);
    void LoadRegistryData(UINT keyId);

    // One record per sub-key of parentKey (in the registry's order), loaded from parentKey\sub-key and
    // appended. The pointer forms append new records the caller owns; with merge, a record already in
    // the list with the same profile id receives the loaded values instead (the first such record).
    // Uses this object's key, which is closed afterwards.
    void EnumRegistryKey(std::list<CPhoneEntry>& list, CString parentKey);
    void EnumRegistryKey(std::list<CPhoneEntry>& list, UINT parentKeyId);
    void EnumRegistryKey(std::list<CPhoneEntry*>& list, CString parentKey, bool merge);
    void EnumRegistryKey(std::list<CPhoneEntry*>& list, UINT parentKeyId, bool merge);

    // The first record in list order that is not deleted and has that profile id; list.end() if none.
    static std::list<CPhoneEntry*>::iterator FindProfile(std::list<CPhoneEntry*>& list, DWORD id);

    // By profile id; by number ignoring case (against a text or another record); ordered by the numbers'
    // exact characters.
    bool operator==(DWORD profileId) const { return m_dwProfileID == profileId; }
    bool operator==(const CString& number) const { return m_strPhoneNumber.CompareNoCase(number) == 0; }
    bool operator==(const CPhoneEntry& other) const { return *this == other.m_strPhoneNumber; }
    bool operator!=(const CPhoneEntry& other) const { return !(*this == other); }
    bool operator<(const CPhoneEntry& other) const {
        return m_strPhoneNumber.Compare(other.m_strPhoneNumber) < 0;
    }
    bool operator>(const CPhoneEntry& other) const {
        return m_strPhoneNumber.Compare(other.m_strPhoneNumber) > 0;
    }

private:
    // The sub-key names of parentKey, read through this object's key.
    std::list<CString> SubKeys(const CString& parentKey);

    bool m_bDeleted = false;
    CString m_strPhoneNumber;
    CString m_strDescription;
    DWORD m_dwProfileID = 0;
};
