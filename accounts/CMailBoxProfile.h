// One POP3 account as the library holds it: its settings (CMailBoxData), the messages cached for it,
// its friend, spammer and folder lists, its rules, its contacts and two caches of message identifiers
// that the host fills while it works through a mailbox; and its persistence in the registry and in
// structured storage (one sub-storage of the user's accounts file, plus a message file of its own).
//
// Ownership: the profile owns its message records and contacts (UnloadMessages destroys them; the
// destructor does not) and holds its rules by value. A copy shares the source's three storage handles;
// they are closed (committed) when the last profile holding them goes.
//
// Locking: the account lock of CMailBoxData guards the settings and the three string lists; the
// registry load and the registry save each hold a lock of their own for their whole run. Messages,
// rules, contacts and caches take no lock: one thread at a time works on them.
//
// Failures: searches report absence by the list's end position, never by an exception. AddMessage
// swallows storage failures; the other storage operations (except InitializeStorages) let
// CStorageManagerException reach the caller, heap-allocated as always (the catcher calls Delete()).
// Registry operations report nothing.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "accounts/CMailBoxData.h"
#include "accounts/CRegistryManager.h"
#include "messages/CMessageList.h"
#include "platform/CArray.h"
#include "platform/CCriticalSection.h"
#include "platform/CString.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CForwardMailProfile.h"
#include "rules/CSpamBlockProfile.h"

class CAddressEntry;
class CGlobalProfile;
class CStorageManager;
class CStorageManagerException;
class IStorage;
namespace tavik::lib {
class SenderMatcher;
}

// Lengths, in characters, of the 15 texts of an account's string record, in its order ("String Data
// Length", 60 bytes little-endian).
struct _tagSTR_MAILBOXDATA {
    DWORD dwAccountName;
    DWORD dwUserName;
    DWORD dwPassword;
    DWORD dwOutgoingUserName;
    DWORD dwOutgoingPassword;
    DWORD dwEmailAddress;
    DWORD dwIncomingServerName;
    DWORD dwOutgoingServer;
    DWORD dwActiveFolder;
    DWORD dwOutgoingProtocol;
    DWORD dwIncomingProtocol;
    DWORD dwRealName;
    DWORD dwReplyTo;
    DWORD dwOrganization;
    DWORD dwDataFile;
};

class CMailBoxProfile : public CRegistryManager, public CMailBoxData {
    DECLARE_DYNAMIC(CMailBoxProfile)

public:
    // What EnumStorage reads of each account: everything, or only what IsValidDataFile needs. Any other
    // value reads nothing.
    enum READ_TYPE { READ_FULL = 0, READ_VALIDITY_CHECK = 1 };
    using MessagePosition = std::list<CMessageList*>::iterator;
    using _tagLoadProgressData = CMessageList::_tagLoadProgressData;

    // Defaults (ResetValues), empty storages, lists and caches, the four changed/valid flags true.
    CMailBoxProfile();
    // Settings, flags, owner's user name, the three string lists, copies of the rules, the same message
    // pointers, both caches and the shared storage handles; never the contacts.
    CMailBoxProfile(const CMailBoxProfile& other);
    CMailBoxProfile& operator=(const CMailBoxProfile& other);
    // Releases this profile's hold on the storages and destroys the rules, not the messages or contacts.
    ~CMailBoxProfile() override;

    // The settings' defaults, then under the account lock: friends and spammers emptied, folders
    // "Inbox", "Sent", "Trash", every rule erased. Messages, contacts, caches and storages stay.
    void ResetValues() override;

    // Account names compared ignoring case (==) or byte by byte (<, >, !=); == DWORD compares Signature.
    bool operator==(const CMailBoxProfile& other) const;
    bool operator==(const CString& name) const;
    bool operator==(const DWORD& signature) const;
    bool operator!=(const CMailBoxProfile& other) const;
    bool operator<(const CMailBoxProfile& other) const;
    bool operator>(const CMailBoxProfile& other) const;

    // --- friend, spammer and folder lists (under the account lock)
    void GetFriendList(CStringArray& list) const;
    void GetSpamList(CStringArray& list) const;
    void GetFolderList(CStringArray& list) const;
    // Replace the list and mark it changed, so that the next storage save writes it.
    void SetFriendList(const CStringArray& list);
    void SetSpamList(const CStringArray& list);
    void SetFolderList(const CStringArray& list);
    // An entry equal to name ignoring case.
    bool FolderExists(CString name) const;

    // --- rules
    std::list<CAutoResponderProfile>& GetAutoResponders() { return m_AutoResponders; }
    std::list<CForwardMailProfile>& GetRedirectors() { return m_Redirectors; }
    virtual std::list<CSpamBlockProfile>& GetSpamShields() { return m_SpamShields; }
    // Empty the given list, then fill it with copies in order.
    void GetAutoResponders(std::list<CAutoResponderProfile>& list) const;
    void GetRedirectors(std::list<CForwardMailProfile>& list) const;
    virtual void GetSpamShields(std::list<CSpamBlockProfile>& list) const;
    long GetRespondersCount() const { return static_cast<long>(m_AutoResponders.size()); }
    long GetRedirectorsCount() const { return static_cast<long>(m_Redirectors.size()); }
    long GetShieldCount() const { return static_cast<long>(m_SpamShields.size()); }
    long GetContactCount() const { return static_cast<long>(m_AddressList.size()); }

    // --- messages
    // Saves the record into the message storage (creating the account's message file first when it has
    // none or its file is gone), appends it, counts it as new when asked, and marks the stored numeric
    // record modified. Returns the record's position as FindMessage finds it; the end position for a
    // null record, and after a storage failure (what was done before it stays done).
    MessagePosition AddMessage(CMessageList* message, bool isNew);
    // The first record with that id, skipping deleted ones unless asked; the end position when none.
    // Searches go through an index of the list: a record's id is the one it had when it joined the list.
    MessagePosition FindMessage(DWORD id, bool includeDeleted);
    bool HasMessage(DWORD id);
    MessagePosition MESSAGE_NOT_FOUND() { return m_MessageList.end(); }
    // The list itself, for changes by the caller; handing it out makes the next search re-read it.
    std::list<CMessageList*>& GetMessageList();
    // Becomes a copy of the pointers; no record is made or destroyed.
    void SetMessageList(std::list<CMessageList*>& list);
    // Destroys every message record and every contact, and empties both lists.
    void UnloadMessages();
    std::list<CAddressEntry*>& GetAddressList() { return m_AddressList; }
    // The message storage handle: the account's message file once it has one, "Messages" of the
    // account's sub-storage before; nothing open before InitializeStorages.
    CStorageManager* GetMessageStoragePtr();
    // Whether the account's message file was found by the last IsValidDataFile or ValidateDataFile.
    bool IsValidDbase() const { return m_bValidDbase; }
    void SetProfileUserName(CString userName);
    // Beyond the classic interface: the owning user's name, and the message position AddMessage
    // returned last.
    CString GetProfileUserName() const;
    MessagePosition GetLastAddedPosition() { return m_LastAdded; }

    // --- classification: a non-empty entry of the list found anywhere in the sender text, ignoring
    // case. A friend clears the message's spam tag, a spammer sets it; no match changes nothing. The end
    // position or a null record reads as an empty sender and its tag is never touched.
    bool IsMsgFriendly(MessagePosition position);
    bool IsMsgSpammer(MessagePosition position);
    // With AlwaysRescan on: NewMsgCount 0, and every received record outside the folder "sent" (and,
    // with LeaveFullMsgs on, without a body) is marked deleted, so that the next scan fetches it again.
    void AutoRescan();

    // --- caches
    void AddCachedForwardMsg(DWORD id);  // appended unless present
    bool HasCachedForwardMsgs() const { return !m_CachedForwards.empty(); }
    bool IsCachedForwardMsg(DWORD id) const;
    void RemoveCachedForwardMsg(DWORD id);  // the first equal entry
    void ClearCachedForwardMsgs() { m_CachedForwards.clear(); }
    std::list<DWORD>& GetCachedForwardMsgs() { return m_CachedForwards; }
    // Inserted unless present; a present id keeps its flag.
    void AddCachedDeleteMsg(DWORD id, bool apply);
    bool HasCachedDeleteMsgs() const { return !m_CachedDeletes.empty(); }
    bool IsCachedDeleteMsg(DWORD id) const { return m_CachedDeletes.count(id) != 0; }
    // Only an entry whose flag is set: the rules forget the id (RemoveMessageID), the first live record
    // with it is marked deleted, and the entry goes.
    void RemoveCachedDeleteMsg(DWORD id, CGlobalProfile* global);
    void ClearCachedDeletedMsgs() { m_CachedDeletes.clear(); }
    // RemoveCachedDeleteMsg's work for every flagged entry, in ascending id order; no entry is removed.
    void CleanupCachedDeletedMsgs(CGlobalProfile* global);
    // Every rule of the account and every shield of global forgets the id; nothing without global.
    void RemoveMessageID(DWORD id, CGlobalProfile* global);

    // --- static searches: the list's end position when nothing matches
    static std::list<CMailBoxProfile*>::iterator FindProfile(std::list<CMailBoxProfile*>& list, CString name);
    static std::list<CMailBoxProfile*>::iterator FindProfile(std::list<CMailBoxProfile*>& list, DWORD id);
    static std::list<CAddressEntry*>::iterator FindContact(std::list<CAddressEntry*>& list, int id);

    // --- storage (see the .cpp files for the layouts)
    // StorageName becomes storageName; unless the account storage is open or the name is empty, opens
    // (creating) that sub-storage of parent and, inside it, "Messages" and "Contacts". Failures end the
    // operation quietly; what was opened stays open.
    void InitializeStorages(IStorage* parent, CString storageName);
    // Reads the account from its sub-storage (either layout), its lists, rules and contacts, and with
    // loadMessages its messages, the message storage moving to the account's message file. progress may
    // be null. Throws CStorageManagerException; a message file that cannot be opened (not a compound
    // file, in use by another account) leaves the message storage as it was and clears IsValidDbase.
    void ReadStorageData(IStorage* parent, CString storageName, _tagLoadProgressData* progress,
                         bool loadMessages);
    // Writes the account into its sub-storage of parent (or removes it when deleted) and commits the
    // account's storages; with saveMessages also its messages, the message file committed to disk.
    // Status texts go to progress's window in the order of the steps that run. Throws
    // CStorageManagerException; a failed commit leaves the previous file as it was.
    void SaveStorageData(IStorage* parent, _tagLoadProgressData* progress, bool saveMessages);
    // Reads the string record and sets IsValidDbase: true when DataFile is empty or names a file.
    void IsValidDataFile(IStorage* parent, CString storageName);
    // Repairs an account whose message file is lost: a new file is made from the message storage when
    // nothing is at path, else DataFile becomes path; the string record is written back.
    void ValidateDataFile(CString path);

    // --- registry
    // Reads the account's own key (created with the defaults when missing), its rules and lists (a
    // missing rule or list key reads as empty and is not created); then Signature becomes the CRC-32 of
    // AccountName.
    virtual void LoadRegistryData(CString accountKey);
    // Writes "<parentKey>\<AccountName>" with its rules and lists, or removes it (and everything under
    // it) when the account is deleted. An empty account name writes nothing.
    virtual void SaveRegistryData(CString parentKey);
    // Walk the sub-keys of the key this object holds open (OpenRegistryKey) at parentKey. The first
    // appends a copy of every account; the second skips nameless ones, and with merge refreshes an
    // account of the same name (ignoring case) already in the list instead of adding it.
    void EnumRegistryKey(std::list<CMailBoxProfile>& list, CString parentKey);
    void EnumRegistryKey(std::list<CMailBoxProfile*>& list, CString parentKey, CString userName, bool merge);
    // One account per sub-storage of parent, joined by name to the accounts already in the list.
    // Nameless sub-storages and accounts whose storage yields no name are removed (a listed account
    // losing its name is only marked deleted).
    static void EnumStorage(IStorage* parent, std::list<CMailBoxProfile*>& list, CString userName,
                            _tagLoadProgressData* progress, bool loadMessages, READ_TYPE readType);

    // The 15 texts of the string record concatenated, and the reverse (see _tagSTR_MAILBOXDATA). Parsing
    // does nothing for null pointers, takes the first text only when it fits the text, each later one
    // while its start lies within it (cut at its end), and stops at the first that does not: it and the
    // ones after it keep their values. Lengths of any size are safe.
    CString BuildMailBoxStringData() const;
    void ParseMailBoxStringData(char* text, _tagSTR_MAILBOXDATA* lengths);

protected:
    long GetMessageCount() const;
    CString BuildMessageIndex() const;

    // Held for the whole of one registry save, or one registry load.
    CCriticalSection m_csSaveRegistry;
    CCriticalSection m_csLoadRegistry;

private:
    struct Storages;  // the three handles, shared by copies
    struct MessageIndex {
        std::unordered_map<DWORD, std::vector<MessagePosition>> byId;
        size_t listSize = 0;
        bool fresh = false;
    };

    void CopyProfile(const CMailBoxProfile& other);
    void ForgetMatchers();
    std::shared_ptr<const tavik::lib::SenderMatcher> Matcher(bool friends);
    bool Classify(MessagePosition position, bool friends);
    void RebuildIndex();
    MessagePosition SearchIndex(DWORD id, bool includeDeleted);
    void MarkDeleted(DWORD id);

    // Storage steps (CMailBoxProfileStore.cpp).
    CStorageManagerException* ReadStorage(IStorage* parent, CString storageName,
                                          _tagLoadProgressData* progress, bool loadMessages);
    bool HasCurrentRecords();
    void ReadStringRecord();
    void ReadRecords();
    void ReadLists();
    void ReadRules();
    void ReadMessages(_tagLoadProgressData* progress, const CString& index);
    void WriteStringRecord();
    void WriteRecords();
    void MarkStoredModified();
    bool MessageFileUsable() const;
    void OpenMessageFile();
    void MoveMessagesToFile();
    void CommitStorages(bool messages);
    void SendStatus(_tagLoadProgressData* progress, const char* format);

    // Registry steps (CMailBoxProfileRegistry.cpp).
    void WriteAccountKey(const CString& accountKey);
    void RemoveAccountKey(const CString& accountKey);
    void ReadAccountKey(CRegistryManager& reg);
    void MergeLoaded(const CMailBoxProfile& loaded);

    CString m_strProfileUserName;
    bool m_bFriendListChanged = true;
    bool m_bSpamListChanged = true;
    bool m_bFolderListChanged = true;
    bool m_bValidDbase = true;
    std::shared_ptr<Storages> m_pStorages;
    CStringArray m_FriendList;
    CStringArray m_SpamList;
    CStringArray m_FolderList;
    std::list<CAutoResponderProfile> m_AutoResponders;
    std::list<CForwardMailProfile> m_Redirectors;
    std::list<CSpamBlockProfile> m_SpamShields;
    std::list<CMessageList*> m_MessageList;
    MessagePosition m_LastAdded;
    std::list<CAddressEntry*> m_AddressList;
    std::map<DWORD, bool> m_CachedDeletes;
    std::list<DWORD> m_CachedForwards;

    // Beyond the stored fields: words 20 and 21 of the numeric record as last read or written, and
    // whether the stored record already says "modified" (so AddMessage writes it once, not per record).
    DWORD m_dwStoredMsgCount = 0;
    DWORD m_dwModified = 1;
    bool m_bStoredModified = false;
    MessageIndex m_Index;
    std::mutex m_matcherLock;  // guards the two matchers below
    std::shared_ptr<const tavik::lib::SenderMatcher> m_FriendMatcher;
    std::shared_ptr<const tavik::lib::SenderMatcher> m_SpamMatcher;
};
