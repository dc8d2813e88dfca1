// One contact of an account's address book: name, company details, up to nine telephone numbers, three
// e-mail addresses and two postal addresses. Each entry is a sub-storage of the account's contact
// storage, named by its profile id in decimal, holding "String Data Length" (a 404-byte lengths
// record), "String Data" (the texts, concatenated) and "Profile ID".
//
// Failures: storage failures during a load are swallowed (the entry keeps what it had read); a save
// reports them through its result and leaves the entry dirty. Nothing here throws.
#pragma once

#include <list>
#include <map>

#include "accounts/CRegistryManager.h"
#include "contacts/CAddressData.h"
#include "contacts/CNameData.h"
#include "platform/CString.h"

class IStorage;
class CMailBoxProfile;

// The types' meanings are the host's; only their numbers are stored. Values outside each range are
// refused by the setters and read as empty.
enum PHONETYPE : int {
    PHONE_BUSINESS = 0,
    PHONE_BUSINESS2,
    PHONE_HOME,
    PHONE_HOME2,
    PHONE_MOBILE,
    PHONE_PAGER,
    PHONE_BUSINESS_FAX,
    PHONE_HOME_FAX,
    PHONE_OTHER,
    PHONETYPE_COUNT
};
enum EMAILTYPE : int { EMAIL_PRIMARY = 0, EMAIL_SECONDARY, EMAIL_OTHER, EMAILTYPE_COUNT };
enum ADDRESSTYPE : int { ADDRESS_BUSINESS = 0, ADDRESS_HOME, ADDRESSTYPE_COUNT };

class CAddressEntry : public CRegistryManager {
    DECLARE_DYNAMIC(CAddressEntry)

public:
    // The lengths (in characters, no terminator) of the texts of "String Data", stored as 404 bytes of
    // little-endian 32-bit numbers in this member order. The reserved ranges are written as zero and
    // never read.
    struct _tagSTR_ADDRESSENTRY {
        DWORD dwCompany, dwJobTitle, dwFileAs, dwUrl, dwComments;
        DWORD dwPhone[PHONETYPE_COUNT];
        DWORD dwEmail[EMAILTYPE_COUNT];
        DWORD dwReserved1[64];
        DWORD dwAddress[ADDRESSTYPE_COUNT][5];  // street, city, state, postal code, country
        DWORD dwReserved2[5];
        DWORD dwTitle, dwFirstName, dwMiddleName, dwLastName, dwSuffix;
    };
    static constexpr ULONG kLengthsSize = 404;

    // ResetValues: a new random profile id.
    CAddressEntry();
    ~CAddressEntry() override;

    // Five company texts and the three maps emptied, not deleted, not dirty, a new profile id (the
    // generator seeded with the tick count, then rand). The name is not touched.
    void ResetValues();

    int GetProfileID() const { return m_nProfileID; }
    const CString& GetCompany() const { return m_strCompany; }
    const CString& GetJobTitle() const { return m_strJobTitle; }
    const CString& GetFileAs() const { return m_strFileAs; }
    const CString& GetUrl() const { return m_strUrl; }
    const CString& GetComments() const { return m_strComments; }
    // The name's GetNameString.
    CString GetAddressName() const;
    // The file-as name when there is one, else the address name.
    CString GetDisplayName() const;
    CNameData* GetNameDataPtr() { return &m_NameData; }
    // Empty text (or an empty address) for a type never set.
    CString GetPhoneNumber(PHONETYPE type) const;
    CString GetEmailAddress(EMAILTYPE type) const;
    CString GetMailingAddress(ADDRESSTYPE type) const;
    CAddressData GetAddressData(ADDRESSTYPE type) const;
    // The owning account's fields, copied by LoadAddress.
    const CString& GetAccountName() const { return m_strAccountName; }
    const CString& GetServerName() const { return m_strServerName; }
    const CString& GetOutgoingServer() const { return m_strOutgoingServer; }
    const CString& GetAccountEmailAddress() const { return m_strEmailAddress; }

    // Store and mark dirty, except SetFileAs, which never marks dirty (a file-as change alone is not
    // saved). The typed setters replace or add the value of their type; a type out of range is ignored.
    void SetCompany(CString text);
    void SetJobTitle(CString text);
    void SetFileAs(CString text) { m_strFileAs = text; }
    void SetUrl(CString text);
    void SetComments(CString text);
    void SetNameData(const CNameData& name);
    void SetPhoneNumber(PHONETYPE type, CString number);
    void SetEmailAddress(EMAILTYPE type, CString address);
    void SetMailingAddress(ADDRESSTYPE type, const CAddressData& address);

    // The next SaveAddress removes the entry's sub-storage.
    void DeleteEntry() { m_bDeleted = true; }
    bool IsDeleted() const { return m_bDeleted; }
    bool IsDirty() const { return m_bDirty; }

    // By profile id; by address name ignoring case. Between two entries the comparisons say nothing:
    // == is always true and !=, <, > always false (callers rely on finding by id or name only).
    bool operator==(DWORD profileId) const { return static_cast<DWORD>(m_nProfileID) == profileId; }
    bool operator==(const CString& name) const { return GetAddressName().CompareNoCase(name) == 0; }
    bool operator==(const CAddressEntry&) const { return true; }
    bool operator!=(const CAddressEntry&) const { return false; }
    bool operator<(const CAddressEntry&) const { return false; }
    bool operator>(const CAddressEntry&) const { return false; }

    // The texts in stored order: company, job title, file-as, web page, comments, telephone numbers 0-8,
    // e-mail addresses 0-2, both postal addresses (street, city, state, postal code, country), then
    // title, first, middle and last name and suffix. A type without a value gives nothing.
    CString BuildMailBoxStringData() const;
    // The lengths record of the texts BuildMailBoxStringData gives, reserved ranges zero.
    void BuildStringDataLengths(_tagSTR_ADDRESSENTRY& lengths) const;
    // Takes the fields in stored order, each as many characters as its length says, while they fit in
    // data (which ends at its first zero byte); the first field that does not fit ends the parse and it
    // and the fields after it keep their values. Null data or lengths: nothing.
    void ParseAddressEntryData(char* data, _tagSTR_ADDRESSENTRY* lengths);

    // Opens (creating when missing) the sub-storage name of parent and reads the entry from it: the texts
    // when both text streams hold something, the profile id when "Profile ID" exists (else it stays as
    // it was). Copies the account's fields from profile when one is given. Clears the dirty mark.
    // A storage failure ends the load quietly.
    void LoadAddress(IStorage* parent, CString name, CMailBoxProfile* profile);
    // Deleted: removes the sub-storage the entry was loaded from or saved to (a new entry has none, and
    // the one its id names may be another contact's) and returns true. Not dirty: true, nothing written.
    // Otherwise writes the three streams into the sub-storage its id names and commits it. Ids come from a
    // generator seeded with the tick count, so entries made in the same millisecond draw the same one, and 0
    // is possible: an entry never stored under its name does not take a name that already exists in parent
    // (or the name "0", which enumeration drops); it draws new ids until it finds a free one, so that no
    // contact overwrites another. An entry whose id no longer matches the name it was loaded from moves: the
    // old sub-storage is removed once the new one is written. False (entry still dirty) when parent is
    // null, the storage fails or no free id is left.
    bool SaveAddress(IStorage* parent);
    // Loads every sub-storage of parent whose name is not blank and appends the entries whose profile
    // id is not 0 (the others are dropped; their storage stays). Nothing in parent is destroyed.
    static void EnumStorage(IStorage* parent, std::list<CAddressEntry*>& list, CMailBoxProfile* profile);

    // How a load reads the account fields of a profile (account name, incoming server, outgoing server,
    // e-mail address). The accounts part installs it; without one a profile fills nothing.
    using ProfileFieldsReader = void (*)(CMailBoxProfile* profile, CString& accountName, CString& serverName,
                                         CString& outgoingServer, CString& emailAddress);
    static void SetProfileFieldsReader(ProfileFieldsReader reader);

protected:
    CAddressEntry(const CAddressEntry& other);
    CAddressEntry& operator=(const CAddressEntry& other);

private:
    int m_nProfileID = 0;
    CString m_strCompany;
    CString m_strJobTitle;
    CString m_strFileAs;
    CString m_strUrl;
    CString m_strComments;
    std::map<ADDRESSTYPE, CAddressData> m_mapAddress;
    std::map<PHONETYPE, CString> m_mapPhone;
    std::map<EMAILTYPE, CString> m_mapEmail;
    CNameData m_NameData;
    bool m_bDeleted = false;
    bool m_bDirty = false;
    CString m_strAccountName;
    CString m_strServerName;
    CString m_strOutgoingServer;
    CString m_strEmailAddress;
    // The sub-storage this entry was loaded from or last saved to; empty for a new entry.
    CString m_strStoredName;
};
