// The account in memory: construction and copies, comparisons, lists, rules, messages and their search
// index, classification and the caches. Persistence is in CMailBoxProfileStore.cpp (storage) and
// CMailBoxProfileRegistry.cpp (registry).
#include "accounts/CMailBoxProfile.h"

#include <algorithm>
#include <string_view>

#include "accounts/CGlobalProfile.h"
#include "accounts/internal/AccountStorages.h"
#include "accounts/internal/SenderMatcher.h"
#include "contacts/CAddressEntry.h"
#include "messages/CStorageManagerException.h"
#include "platform/FileSystem.h"

IMPLEMENT_DYNAMIC(CMailBoxProfile, CRegistryManager)

namespace {

// How message records and contacts read the fields of the account that loads them.
void readProfileFields(CMailBoxProfile* profile, CString& accountName, CString& serverName,
                       CString& outgoingServer, CString& emailAddress) {
    accountName = profile->GetAccountName();
    serverName = profile->GetIncomingServerName();
    outgoingServer = profile->GetOutgoingServer();
    emailAddress = profile->GetEmailAddress();
}

[[maybe_unused]] const bool g_readersInstalled = [] {
    CMessageList::SetProfileFieldsReader(&readProfileFields);
    CAddressEntry::SetProfileFieldsReader(&readProfileFields);
    return true;
}();

void defaultFolders(CStringArray& folders) {
    folders.RemoveAll();
    folders.Add("Inbox");
    folders.Add("Sent");
    folders.Add("Trash");
}

}  // namespace

CMailBoxProfile::CMailBoxProfile() : m_pStorages(std::make_shared<Storages>()) {
    m_LastAdded = m_MessageList.end();
    ResetValues();
}

CMailBoxProfile::CMailBoxProfile(const CMailBoxProfile& other)
    : CRegistryManager(), CMailBoxData(other), m_pStorages(other.m_pStorages) {
    m_LastAdded = m_MessageList.end();
    CopyProfile(other);
}

CMailBoxProfile& CMailBoxProfile::operator=(const CMailBoxProfile& other) {
    if (this == &other) return *this;
    CMailBoxData::operator=(other);
    m_pStorages = other.m_pStorages;
    CopyProfile(other);
    return *this;
}

CMailBoxProfile::~CMailBoxProfile() = default;

void CMailBoxProfile::CopyProfile(const CMailBoxProfile& other) {
    m_strProfileUserName = other.m_strProfileUserName;
    m_bFriendListChanged = other.m_bFriendListChanged;
    m_bSpamListChanged = other.m_bSpamListChanged;
    m_bFolderListChanged = other.m_bFolderListChanged;
    m_bValidDbase = other.m_bValidDbase;
    {
        CSingleLock source(&other.m_csLock, TRUE);
        CStringArray friends(other.m_FriendList), spammers(other.m_SpamList), folders(other.m_FolderList);
        source.Unlock();
        CSingleLock self(&m_csLock, TRUE);
        m_FriendList.Copy(friends);
        m_SpamList.Copy(spammers);
        m_FolderList.Copy(folders);
    }
    ForgetMatchers();
    m_AutoResponders = other.m_AutoResponders;
    m_Redirectors = other.m_Redirectors;
    m_SpamShields = other.m_SpamShields;
    m_MessageList = other.m_MessageList;
    m_LastAdded = m_MessageList.end();
    m_Index = MessageIndex();
    m_CachedDeletes = other.m_CachedDeletes;
    m_CachedForwards = other.m_CachedForwards;
    m_dwStoredMsgCount = other.m_dwStoredMsgCount;
    m_dwModified = other.m_dwModified;
    m_bStoredModified = other.m_bStoredModified;
}

void CMailBoxProfile::ResetValues() {
    CMailBoxData::ResetValues();
    {
        CSingleLock lock(&m_csLock, TRUE);
        m_SpamList.RemoveAll();
        m_FriendList.RemoveAll();
        defaultFolders(m_FolderList);
        m_AutoResponders.clear();
        m_Redirectors.clear();
        m_SpamShields.clear();
    }
    ForgetMatchers();
}

// --- comparisons

bool CMailBoxProfile::operator==(const CMailBoxProfile& other) const {
    return GetAccountName().CompareNoCase(other.GetAccountName()) == 0;
}
bool CMailBoxProfile::operator==(const CString& name) const {
    return GetAccountName().CompareNoCase(name) == 0;
}
bool CMailBoxProfile::operator==(const DWORD& signature) const { return GetSignature() == signature; }
bool CMailBoxProfile::operator!=(const CMailBoxProfile& other) const {
    return GetAccountName().Compare(other.GetAccountName()) != 0;
}
bool CMailBoxProfile::operator<(const CMailBoxProfile& other) const {
    return GetAccountName().Compare(other.GetAccountName()) < 0;
}
bool CMailBoxProfile::operator>(const CMailBoxProfile& other) const {
    return GetAccountName().Compare(other.GetAccountName()) > 0;
}

// --- lists

void CMailBoxProfile::GetFriendList(CStringArray& list) const {
    CSingleLock lock(&m_csLock, TRUE);
    list.Copy(m_FriendList);
}

void CMailBoxProfile::GetSpamList(CStringArray& list) const {
    CSingleLock lock(&m_csLock, TRUE);
    list.Copy(m_SpamList);
}

void CMailBoxProfile::GetFolderList(CStringArray& list) const {
    CSingleLock lock(&m_csLock, TRUE);
    list.Copy(m_FolderList);
}

void CMailBoxProfile::SetFriendList(const CStringArray& list) {
    {
        CSingleLock lock(&m_csLock, TRUE);
        m_FriendList.Copy(list);
        m_bFriendListChanged = true;
    }
    ForgetMatchers();
}

void CMailBoxProfile::SetSpamList(const CStringArray& list) {
    {
        CSingleLock lock(&m_csLock, TRUE);
        m_SpamList.Copy(list);
        m_bSpamListChanged = true;
    }
    ForgetMatchers();
}

void CMailBoxProfile::SetFolderList(const CStringArray& list) {
    CSingleLock lock(&m_csLock, TRUE);
    m_FolderList.Copy(list);
    m_bFolderListChanged = true;
}

bool CMailBoxProfile::FolderExists(CString name) const {
    CSingleLock lock(&m_csLock, TRUE);
    for (int i = 0; i < m_FolderList.GetSize(); ++i)
        if (m_FolderList[i].CompareNoCase(name) == 0) return true;
    return false;
}

// --- rules

void CMailBoxProfile::GetAutoResponders(std::list<CAutoResponderProfile>& list) const {
    list.assign(m_AutoResponders.begin(), m_AutoResponders.end());
}

void CMailBoxProfile::GetRedirectors(std::list<CForwardMailProfile>& list) const {
    list.assign(m_Redirectors.begin(), m_Redirectors.end());
}

void CMailBoxProfile::GetSpamShields(std::list<CSpamBlockProfile>& list) const {
    list.assign(m_SpamShields.begin(), m_SpamShields.end());
}

// --- messages

std::list<CMessageList*>& CMailBoxProfile::GetMessageList() {
    m_Index.fresh = false;
    return m_MessageList;
}

void CMailBoxProfile::SetMessageList(std::list<CMessageList*>& list) {
    m_MessageList = list;
    m_LastAdded = m_MessageList.end();
    m_Index.fresh = false;
}

void CMailBoxProfile::UnloadMessages() {
    for (CMessageList* message : m_MessageList) delete message;
    m_MessageList.clear();
    m_LastAdded = m_MessageList.end();
    m_Index = MessageIndex();
    for (CAddressEntry* contact : m_AddressList) delete contact;
    m_AddressList.clear();
}

CStorageManager* CMailBoxProfile::GetMessageStoragePtr() { return &m_pStorages->messages; }

void CMailBoxProfile::SetProfileUserName(CString userName) {
    CSingleLock lock(&m_csLock, TRUE);
    m_strProfileUserName = userName;
}

CString CMailBoxProfile::GetProfileUserName() const {
    CSingleLock lock(&m_csLock, TRUE);
    return m_strProfileUserName;
}

void CMailBoxProfile::RebuildIndex() {
    m_Index.byId.clear();
    for (auto it = m_MessageList.begin(); it != m_MessageList.end(); ++it)
        if (*it) m_Index.byId[(*it)->GetID()].push_back(it);
    m_Index.listSize = m_MessageList.size();
    m_Index.fresh = true;
}

// The list is searched through the index of ids; a list that changed size behind the index's back
// (through the reference GetMessageList handed out) is indexed again first.
CMailBoxProfile::MessagePosition CMailBoxProfile::SearchIndex(DWORD id, bool includeDeleted) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!m_Index.fresh || m_Index.listSize != m_MessageList.size()) RebuildIndex();
        auto found = m_Index.byId.find(id);
        if (found == m_Index.byId.end()) return m_MessageList.end();
        bool stale = false;
        for (MessagePosition position : found->second) {
            CMessageList* message = *position;
            if (!message || message->GetID() != id) {
                stale = true;
                break;
            }
            if (includeDeleted || !message->IsDeleted()) return position;
        }
        if (!stale) return m_MessageList.end();
        m_Index.fresh = false;
    }
    return m_MessageList.end();
}

CMailBoxProfile::MessagePosition CMailBoxProfile::FindMessage(DWORD id, bool includeDeleted) {
    return SearchIndex(id, includeDeleted);
}

bool CMailBoxProfile::HasMessage(DWORD id) { return FindMessage(id, false) != m_MessageList.end(); }

long CMailBoxProfile::GetMessageCount() const {
    long count = 0;
    for (const CMessageList* message : m_MessageList)
        if (message && !message->IsDeleted()) ++count;
    return count;
}

CString CMailBoxProfile::BuildMessageIndex() const {
    std::string index;
    for (const CMessageList* message : m_MessageList) {
        if (!message || message->IsDeleted()) continue;
        index += message->GetStorageName().str();
        index += ',';
    }
    return CString(std::move(index));
}

CMailBoxProfile::MessagePosition CMailBoxProfile::AddMessage(CMessageList* message, bool isNew) {
    if (!message) return m_MessageList.end();
    try {
        CStorageManager& messages = m_pStorages->messages;
        if (messages.IsOpen() && !MessageFileUsable()) MoveMessagesToFile();
        message->SetParentStorage(messages.GetStorage());
        // Without a storage the record stays unsaved (and dirty) until one is open.
        if (messages.IsOpen()) message->SaveMessage(messages.GetStorage());
        m_MessageList.push_back(message);
        if (m_Index.fresh && m_Index.listSize + 1 == m_MessageList.size()) {
            m_Index.byId[message->GetID()].push_back(std::prev(m_MessageList.end()));
            m_Index.listSize = m_MessageList.size();
        }
        m_LastAdded = FindMessage(message->GetID(), false);
        if (isNew) IncrementNewMsgs(1);
        MarkStoredModified();
        return m_LastAdded;
    } catch (CStorageManagerException* e) {
        e->Delete();
        return m_MessageList.end();
    }
}

// --- classification

void CMailBoxProfile::ForgetMatchers() {
    std::lock_guard<std::mutex> lock(m_matcherLock);
    m_FriendMatcher.reset();
    m_SpamMatcher.reset();
}

// Built on first use after each change of the list; the list is read under the account lock.
std::shared_ptr<const tavik::lib::SenderMatcher> CMailBoxProfile::Matcher(bool friends) {
    std::lock_guard<std::mutex> lock(m_matcherLock);
    std::shared_ptr<const tavik::lib::SenderMatcher>& slot = friends ? m_FriendMatcher : m_SpamMatcher;
    if (!slot) {
        CSingleLock account(&m_csLock, TRUE);
        slot = std::make_shared<const tavik::lib::SenderMatcher>(friends ? m_FriendList : m_SpamList);
    }
    return slot;
}

bool CMailBoxProfile::Classify(MessagePosition position, bool friends) {
    CMessageList* message = position == m_MessageList.end() ? nullptr : *position;
    std::shared_ptr<const tavik::lib::SenderMatcher> matcher = Matcher(friends);
    const std::string_view sender =
        message ? std::string_view(message->GetSenderName().str()) : std::string_view();
    if (!matcher->Matches(sender)) return false;
    if (message) {
        if (friends)
            message->ClearSpamTag();
        else
            message->SetSpamTag();
    }
    return true;
}

bool CMailBoxProfile::IsMsgFriendly(MessagePosition position) { return Classify(position, true); }

bool CMailBoxProfile::IsMsgSpammer(MessagePosition position) { return Classify(position, false); }

void CMailBoxProfile::AutoRescan() {
    if (GetAlwaysRescan() == 0) return;
    ResetNewMsgs();
    const bool keepFull = GetLeaveFullMsgs() != 0;
    for (CMessageList* message : m_MessageList) {
        if (!message || message->GetMessageType() == MsgSent) continue;
        if (message->GetFolderLocation().CompareNoCase("sent") == 0) continue;
        if (keepFull && message->HasBody()) continue;
        message->SetDeleted(true);
    }
}

// --- caches

void CMailBoxProfile::AddCachedForwardMsg(DWORD id) {
    if (!IsCachedForwardMsg(id)) m_CachedForwards.push_back(id);
}

bool CMailBoxProfile::IsCachedForwardMsg(DWORD id) const {
    return std::find(m_CachedForwards.begin(), m_CachedForwards.end(), id) != m_CachedForwards.end();
}

void CMailBoxProfile::RemoveCachedForwardMsg(DWORD id) {
    auto it = std::find(m_CachedForwards.begin(), m_CachedForwards.end(), id);
    if (it != m_CachedForwards.end()) m_CachedForwards.erase(it);
}

void CMailBoxProfile::AddCachedDeleteMsg(DWORD id, bool apply) { m_CachedDeletes.emplace(id, apply); }

void CMailBoxProfile::MarkDeleted(DWORD id) {
    MessagePosition position = FindMessage(id, false);
    if (position != m_MessageList.end()) (*position)->SetDeleted(true);
}

void CMailBoxProfile::RemoveCachedDeleteMsg(DWORD id, CGlobalProfile* global) {
    auto entry = m_CachedDeletes.find(id);
    if (entry == m_CachedDeletes.end() || !entry->second) return;
    RemoveMessageID(id, global);
    MarkDeleted(id);
    m_CachedDeletes.erase(entry);
}

void CMailBoxProfile::CleanupCachedDeletedMsgs(CGlobalProfile* global) {
    for (const auto& [id, apply] : m_CachedDeletes) {
        if (!apply) continue;
        RemoveMessageID(id, global);
        MarkDeleted(id);
    }
}

void CMailBoxProfile::RemoveMessageID(DWORD id, CGlobalProfile* global) {
    if (!global) return;
    for (CAutoResponderProfile& rule : m_AutoResponders) rule.RemoveProcessedID(id);
    for (CForwardMailProfile& rule : m_Redirectors) rule.RemoveProcessedID(id);
    for (CSpamBlockProfile& rule : m_SpamShields) rule.RemoveProcessedID(id);
    for (CSpamBlockProfile& rule : global->GetSpamShields()) rule.RemoveProcessedID(id);
}

// --- static searches

std::list<CMailBoxProfile*>::iterator CMailBoxProfile::FindProfile(std::list<CMailBoxProfile*>& list,
                                                                   CString name) {
    return std::find_if(list.begin(), list.end(), [&](const CMailBoxProfile* profile) {
        return profile && profile->GetAccountName().CompareNoCase(name) == 0;
    });
}

std::list<CMailBoxProfile*>::iterator CMailBoxProfile::FindProfile(std::list<CMailBoxProfile*>& list,
                                                                   DWORD id) {
    return std::find_if(list.begin(), list.end(), [&](const CMailBoxProfile* profile) {
        return profile && profile->GetSignature() == id;
    });
}

std::list<CAddressEntry*>::iterator CMailBoxProfile::FindContact(std::list<CAddressEntry*>& list, int id) {
    return std::find_if(list.begin(), list.end(), [&](const CAddressEntry* contact) {
        return contact && contact->GetProfileID() == id;
    });
}

// --- the string record

CString CMailBoxProfile::BuildMailBoxStringData() const {
    CSingleLock lock(&m_csLock, TRUE);
    return m_strAccountName + m_strUserName + m_strPassword + m_strOutgoingUserName + m_strOutgoingPassword +
           m_strEmailAddress + m_strIncomingServerName + m_strOutgoingServer + m_strActiveFolder +
           m_strOutgoingProtocol + m_strIncomingProtocol + m_strRealName + m_strReplyTo + m_strOrganization +
           m_strDataFile;
}

void CMailBoxProfile::ParseMailBoxStringData(char* text, _tagSTR_MAILBOXDATA* lengths) {
    if (!text || !lengths) return;
    CString* fields[] = {&m_strAccountName,
                         &m_strUserName,
                         &m_strPassword,
                         &m_strOutgoingUserName,
                         &m_strOutgoingPassword,
                         &m_strEmailAddress,
                         &m_strIncomingServerName,
                         &m_strOutgoingServer,
                         &m_strActiveFolder,
                         &m_strOutgoingProtocol,
                         &m_strIncomingProtocol,
                         &m_strRealName,
                         &m_strReplyTo,
                         &m_strOrganization,
                         &m_strDataFile};
    const DWORD counts[] = {lengths->dwAccountName,
                            lengths->dwUserName,
                            lengths->dwPassword,
                            lengths->dwOutgoingUserName,
                            lengths->dwOutgoingPassword,
                            lengths->dwEmailAddress,
                            lengths->dwIncomingServerName,
                            lengths->dwOutgoingServer,
                            lengths->dwActiveFolder,
                            lengths->dwOutgoingProtocol,
                            lengths->dwIncomingProtocol,
                            lengths->dwRealName,
                            lengths->dwReplyTo,
                            lengths->dwOrganization,
                            lengths->dwDataFile};
    const std::string_view all(text);
    // Wide enough that no sum of fifteen 32-bit lengths wraps.
    unsigned long long start = 0;
    CSingleLock lock(&m_csLock, TRUE);
    for (size_t k = 0; k < std::size(fields); ++k) {
        const bool fits = k == 0 ? counts[k] <= all.size() : start <= all.size();
        if (!fits) break;
        const size_t from = static_cast<size_t>(start);
        *fields[k] = CString(all.substr(from, std::min<unsigned long long>(counts[k], all.size() - from)));
        start += counts[k];
    }
}
