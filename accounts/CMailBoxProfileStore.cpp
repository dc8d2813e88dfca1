// An account in structured storage. Its sub-storage (named StorageName) in the user's accounts storage:
//   "Numeric Data"        88 bytes: 22 little-endian words (see kNumericFields; 20 is the number of live
//                         messages at the last save, 21 the modified marker)
//   "String Data Length"  60 bytes: the lengths of the 15 texts of "String Data" (_tagSTR_MAILBOXDATA)
//   "String Data"         the 15 texts, concatenated
//   "Message Index"       storage names of the live messages, each followed by ','
//   "Cache Friends", "Cache Enemies", "Cache Folders"   the lists, '|' before every entry
//   "AutoResponder", "Redirector", "Shields"           one sub-storage per rule
//   "Messages"            the messages of an account that has no message file yet
//   "Contacts"            one sub-storage per contact
// The older layout (read, never written) has one stream per value named as the registry value, numbers
// as decimal text, "Message Count" and "Message Modified", and the lists as storages "Friends",
// "Spammers" and "Folders" of one stream per entry. The messages themselves live in the account's message
// file (DataFile), a compound file of their own.
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "accounts/CMailBoxProfile.h"
#include "accounts/internal/AccountStorages.h"
#include "accounts/internal/AccountStrings.h"
#include "contacts/CAddressEntry.h"
#include "messages/CStorageManager.h"
#include "messages/CStorageManagerException.h"
#include "platform/FileSystem.h"
#include "platform/OleStorage.h"
#include "platform/WindowMessages.h"
#include "util/CErrorWindow.h"

using namespace tavik::lib;

namespace {

constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
constexpr ULONG kLengthsSize = 60;
constexpr ULONG kNumericSize = 88;
constexpr int kCountWord = 20;
constexpr int kModifiedWord = 21;
constexpr const char* kListDelimiter = "|";

DWORD readLE(const unsigned char* p) {
    return p[0] | (DWORD(p[1]) << 8) | (DWORD(p[2]) << 16) | (DWORD(p[3]) << 24);
}

void writeLE(unsigned char* p, DWORD v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

CString resource(UINT id) {
    CString text;
    text.LoadString(id);
    return text;
}

// The older layout's streams: the registry value names, in the order a save removes them.
constexpr UINT kOlderStreams[] = {
    IDS_ACCOUNT_NAME,
    IDS_REAL_NAME,
    IDS_EMAIL_ADDRESS,
    IDS_REPLY_TO,
    IDS_ORGANIZATION,
    IDS_SERVER_NAME,
    IDS_OUTGOING_MAIL_SERVER,
    IDS_INCOMING_PROTOCOL,
    IDS_OUTGOING_PROTOCOL,
    IDS_USER_NAME,
    IDS_USER_PASSWORD,
    IDS_OUTGOING_SERVER_USERNAME,
    IDS_OUTGOING_SERVER_PASSWORD,
    IDS_SPAM_ONLY,
    IDS_SECURE_LOGIN,
    IDS_DISABLED,
    IDS_AUTO_DOWNLOAD,
    IDS_SPAM_FILTER,
    IDS_FILTER_TYPE,
    IDS_TREE_STATE,
    IDS_LEAVE_COPY,
    IDS_SAVE_COPY,
    IDS_RETRIEVE_BODY,
    IDS_MAXIMUM_BODY_SIZE,
    IDS_ALWAYS_RESCAN,
    IDS_TIMEOUT,
    IDS_PROCESS_LIMIT,
    IDS_MAXIMUM_SCAN_LIMIT,
    IDS_LEAVE_COMPLETE_MESSAGES,
    IDS_ACCOUNT_PROFILE_ID,
    IDS_MESSAGE_COUNT,
    IDS_COMPRESS_DATABASE,
    IDS_MESSAGE_MODIFIED,
};

// Whether the element (a storage) holds a stream anywhere below it. Elements that hold none carry no
// data: nothing is lost by removing them.
bool holdsData(IStorage* storage) {
    IEnumSTATSTG* elements = nullptr;
    if (FAILED(storage->EnumElements(0, nullptr, 0, &elements)) || !elements) return true;
    bool found = false;
    STATSTG stat;
    ULONG fetched = 0;
    while (!found && elements->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        if (stat.type == STGTY_STREAM) {
            found = true;
        } else if (stat.type == STGTY_STORAGE) {
            IStorage* child = nullptr;
            if (SUCCEEDED(storage->OpenStorage(stat.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE,
                                               nullptr, 0, &child)) &&
                child) {
                found = holdsData(child);
                child->Release();
            } else {
                found = true;  // what cannot be looked at is kept
            }
        }
        CoTaskMemFree(stat.pwcsName);
    }
    elements->Release();
    return found;
}

bool elementHoldsData(IStorage* parent, const std::u16string& name) {
    IStorage* element = nullptr;
    if (FAILED(parent->OpenStorage(name.c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                   &element)) ||
        !element)
        return true;
    const bool found = holdsData(element);
    element->Release();
    return found;
}

}  // namespace

// --- the records

// The numeric record's words, in order; null for the reserved words and for 20 and 21.
#define TAVIK_NUMERIC_FIELDS(p)                     \
    DWORD* fields[22] = {nullptr,                   \
                         &(p).m_dwAccountDisabled,  \
                         &(p).m_dwFiltering,        \
                         &(p).m_dwLeaveCopy,        \
                         &(p).m_dwSaveCopy,         \
                         &(p).m_dwRetrieveBody,     \
                         &(p).m_dwMaxBodySize,      \
                         &(p).m_dwAlwaysRescan,     \
                         &(p).m_dwTimeoutValue,     \
                         &(p).m_dwCollapsed,        \
                         &(p).m_dwSessionMax,       \
                         &(p).m_dwProcessLimit,     \
                         &(p).m_dwLeaveFullMsgs,    \
                         nullptr,                   \
                         &(p).m_dwSignature,        \
                         &(p).m_dwCompressDatabase, \
                         &(p).m_dwSpamOnly,         \
                         &(p).m_dwAutoDownload,     \
                         &(p).m_dwFilterType,       \
                         &(p).m_dwSecureLogin,      \
                         nullptr,                   \
                         nullptr}

bool CMailBoxProfile::HasCurrentRecords() {
    CStorageManager& account = m_pStorages->account;
    return account.GetStreamSize(IDS_NUMERIC_DATA) >= 1 &&
           account.GetStreamSize(IDS_STRING_DATA_LENGTH) >= 1 && account.GetStreamSize(IDS_STRING_DATA) >= 1;
}

void CMailBoxProfile::ReadStringRecord() {
    CStorageManager& account = m_pStorages->account;
    unsigned char bytes[kLengthsSize] = {};
    account.ReadData(IDS_STRING_DATA_LENGTH, bytes, kLengthsSize);
    _tagSTR_MAILBOXDATA lengths;
    DWORD* words = &lengths.dwAccountName;
    for (size_t k = 0; k < kLengthsSize / 4; ++k) words[k] = readLE(bytes + 4 * k);
    // Read as far as the stream really goes, and taken as text up to its first zero byte.
    std::string text;
    account.ReadBytes(resource(IDS_STRING_DATA), text);
    ParseMailBoxStringData(text.data(), &lengths);
}

void CMailBoxProfile::ReadRecords() {
    CStorageManager& account = m_pStorages->account;
    if (HasCurrentRecords()) {
        ReadStringRecord();
        unsigned char numeric[kNumericSize] = {};
        const ULONG words = account.ReadData(IDS_NUMERIC_DATA, numeric, kNumericSize) / 4;
        {
            CSingleLock lock(&m_csLock, TRUE);
            TAVIK_NUMERIC_FIELDS(*this);
            // A short record gives only the words it holds; the others keep their values.
            for (ULONG w = 0; w < words; ++w)
                if (fields[w]) *fields[w] = readLE(numeric + 4 * w);
        }
        m_dwStoredMsgCount = words > kCountWord ? readLE(numeric + 4 * kCountWord) : 0;
        // Without its marker the index cannot be trusted: the messages are enumerated instead.
        m_dwModified = words > kModifiedWord ? readLE(numeric + 4 * kModifiedWord) : 1;
        m_bStoredModified = words > kModifiedWord && m_dwModified == 1;
        return;
    }
    // The older layout: a stream per value; a missing one leaves its field as it is.
    CString texts[13] = {m_strAccountName,     m_strRealName,         m_strEmailAddress,
                         m_strReplyTo,         m_strOrganization,     m_strIncomingServerName,
                         m_strOutgoingServer,  m_strIncomingProtocol, m_strOutgoingProtocol,
                         m_strUserName,        m_strPassword,         m_strOutgoingUserName,
                         m_strOutgoingPassword};
    // A value name longer than an element name can be ("Leave Complete Messages During Rescan") never
    // had a stream: its field keeps its value.
    auto storable = [](UINT id) { return resource(id).GetLength() < CWCSTORAGENAME; };
    for (int k = 0; k < 13; ++k)
        if (storable(kOlderStreams[k])) account.ReadString(kOlderStreams[k], texts[k]);
    DWORD numbers[18] = {m_dwSpamOnly,     m_dwSecureLogin,     m_dwAccountDisabled, m_dwAutoDownload,
                         m_dwFiltering,    m_dwFilterType,      m_dwCollapsed,       m_dwLeaveCopy,
                         m_dwSaveCopy,     m_dwRetrieveBody,    m_dwMaxBodySize,     m_dwAlwaysRescan,
                         m_dwTimeoutValue, m_dwProcessLimit,    m_dwSessionMax,      m_dwLeaveFullMsgs,
                         m_dwSignature,    m_dwCompressDatabase};
    for (int k = 0; k < 18; ++k)
        if (storable(kOlderStreams[13 + k])) account.ReadNumber(kOlderStreams[13 + k], numbers[k]);
    account.ReadNumber(IDS_MESSAGE_COUNT, m_dwStoredMsgCount);
    m_dwModified = 1;
    account.ReadNumber(IDS_MESSAGE_MODIFIED, m_dwModified);
    m_bStoredModified = false;
    CSingleLock lock(&m_csLock, TRUE);
    CString* textFields[13] = {&m_strAccountName,     &m_strRealName,         &m_strEmailAddress,
                               &m_strReplyTo,         &m_strOrganization,     &m_strIncomingServerName,
                               &m_strOutgoingServer,  &m_strIncomingProtocol, &m_strOutgoingProtocol,
                               &m_strUserName,        &m_strPassword,         &m_strOutgoingUserName,
                               &m_strOutgoingPassword};
    DWORD* numberFields[18] = {
        &m_dwSpamOnly,      &m_dwSecureLogin,  &m_dwAccountDisabled, &m_dwAutoDownload, &m_dwFiltering,
        &m_dwFilterType,    &m_dwCollapsed,    &m_dwLeaveCopy,       &m_dwSaveCopy,     &m_dwRetrieveBody,
        &m_dwMaxBodySize,   &m_dwAlwaysRescan, &m_dwTimeoutValue,    &m_dwProcessLimit, &m_dwSessionMax,
        &m_dwLeaveFullMsgs, &m_dwSignature,    &m_dwCompressDatabase};
    for (int k = 0; k < 13; ++k) *textFields[k] = texts[k];
    for (int k = 0; k < 18; ++k) *numberFields[k] = numbers[k];
}

void CMailBoxProfile::WriteStringRecord() {
    CStorageManager& account = m_pStorages->account;
    unsigned char bytes[kLengthsSize];
    CString text;
    {
        CSingleLock lock(&m_csLock, TRUE);
        const CString* fields[] = {&m_strAccountName,
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
        for (size_t k = 0; k < kLengthsSize / 4; ++k)
            writeLE(bytes + 4 * k, static_cast<DWORD>(fields[k]->GetLength()));
        text = BuildMailBoxStringData();
    }
    account.WriteData(IDS_STRING_DATA_LENGTH, bytes, kLengthsSize);
    account.WriteString(IDS_STRING_DATA, text);
}

void CMailBoxProfile::WriteRecords() {
    WriteStringRecord();
    unsigned char numeric[kNumericSize] = {};
    {
        CSingleLock lock(&m_csLock, TRUE);
        TAVIK_NUMERIC_FIELDS(*this);
        for (int w = 0; w < 22; ++w)
            if (fields[w]) writeLE(numeric + 4 * w, *fields[w]);
    }
    writeLE(numeric + 4 * kCountWord, static_cast<DWORD>(GetMessageCount()));
    writeLE(numeric + 4 * kModifiedWord, m_dwModified);
    m_pStorages->account.WriteData(IDS_NUMERIC_DATA, numeric, kNumericSize);
    m_bStoredModified = m_dwModified == 1;
}

// The stored record says "modified" from the first AddMessage after a save on; writing it once is
// enough for every later message until the next save.
void CMailBoxProfile::MarkStoredModified() {
    m_dwModified = 1;
    CStorageManager& account = m_pStorages->account;
    if (m_bStoredModified || !account.IsOpen()) return;
    unsigned char numeric[kNumericSize] = {};
    account.ReadData(IDS_NUMERIC_DATA, numeric, kNumericSize);
    writeLE(numeric + 4 * kModifiedWord, 1);
    account.WriteData(IDS_NUMERIC_DATA, numeric, kNumericSize);
    m_bStoredModified = true;
}

#undef TAVIK_NUMERIC_FIELDS

// --- the message file

bool CMailBoxProfile::MessageFileUsable() const {
    const CString path = GetDataFile();
    if (path.IsEmpty()) return false;
    const DWORD attributes = GetFileAttributes(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

// Opens DataFile first and only then lets go of what the message storage had open, so that a file that
// cannot be opened (not a compound file, in use by another account) leaves the message storage as it
// was.
void CMailBoxProfile::OpenMessageFile() {
    const CString path = GetDataFile();
    Storages& storages = *m_pStorages;
    if (storages.messages.IsOpen() && storages.messageFile == path) return;
    CStorageManager file(path, true);
    storages.messages.Close();
    storages.messages.m_pStorage = file.m_pStorage;
    file.m_pStorage = nullptr;
    storages.messageFile = path;
}

void CMailBoxProfile::MoveMessagesToFile() {
    CreateDataFile(GetProfileUserName());
    {
        CStorageManager file(GetDataFile(), true);
        m_pStorages->messages.CopyTo(file.GetStorage());
        file.Close();
        if (FAILED(file.m_hResult)) throw new CStorageManagerException(file.m_hResult);
    }
    // The new name can be the one of a lost file the storage is still open on.
    m_pStorages->messageFile.Empty();
    OpenMessageFile();
}

void CMailBoxProfile::CommitStorages(bool messages) {
    auto commit = [](CStorageManager& storage) {
        if (!storage.IsOpen()) return;
        storage.m_hResult = storage.GetStorage()->Commit(STGC_DEFAULT);
        if (FAILED(storage.m_hResult)) throw new CStorageManagerException(storage.m_hResult);
    };
    commit(m_pStorages->contacts);
    if (messages) commit(m_pStorages->messages);
    commit(m_pStorages->account);
}

void CMailBoxProfile::SendStatus(_tagLoadProgressData* progress, const char* format) {
    if (!progress) return;
    CString text;
    text.Format(format, GetAccountName().GetString());
    SendMessage(progress->hWnd, progress->uStatusMessage, 0, reinterpret_cast<LPARAM>(text.GetString()));
}

// --- opening, reading, saving

void CMailBoxProfile::InitializeStorages(IStorage* parent, CString storageName) {
    Storages& storages = *m_pStorages;
    // An open storage keeps its name: it is the element a later save writes or removes.
    if (!storages.account.IsOpen()) {
        CSingleLock lock(&m_csLock, TRUE);
        m_strStorageName = storageName;
    }
    if (storages.account.IsOpen() || storageName.IsEmpty()) return;
    try {
        storages.account.OpenSubStorage(parent, storageName, kMode, true, true);
        m_bStoredModified = false;
        if (!storages.messages.IsOpen())
            storages.messages.OpenSubStorage(storages.account.GetStorage(), IDS_MESSAGES, kMode, true, true);
        if (!storages.contacts.IsOpen())
            storages.contacts.OpenSubStorage(storages.account.GetStorage(), IDS_CONTACTS, kMode, true, true);
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
}

void CMailBoxProfile::ReadLists() {
    CStorageManager& account = m_pStorages->account;
    CStringArray friends, spammers, folders;
    GetFriendList(friends);
    GetSpamList(spammers);
    GetFolderList(folders);
    const bool current = account.StreamExists(IDS_CACHE_FRIENDS) && account.StreamExists(IDS_CACHE_ENEMIES) &&
                         account.StreamExists(IDS_CACHE_FOLDERS);
    if (current) {
        account.ReadStringList(IDS_CACHE_FRIENDS, friends, kListDelimiter);
        account.ReadStringList(IDS_CACHE_ENEMIES, spammers, kListDelimiter);
        account.ReadStringList(IDS_CACHE_FOLDERS, folders, kListDelimiter);
    } else {
        auto readOlder = [&](UINT storageId, CStringArray& list) {
            CStorageManager older;
            if (older.OpenSubStorage(account.GetStorage(), storageId, kMode, true, true))
                older.ReadStreamsIntoArray(list);
        };
        readOlder(IDS_FRIENDS, friends);
        readOlder(IDS_SPAMMERS, spammers);
        readOlder(IDS_FOLDERS, folders);
    }
    {
        CSingleLock lock(&m_csLock, TRUE);
        m_FriendList.Copy(friends);
        m_SpamList.Copy(spammers);
        m_FolderList.Copy(folders);
        // After the older layout, the next save writes all three in the present one.
        m_bFriendListChanged = m_bSpamListChanged = m_bFolderListChanged = !current;
    }
    ForgetMatchers();
}

void CMailBoxProfile::ReadRules() {
    IStorage* account = m_pStorages->account.GetStorage();
    CStorageManager container;
    if (container.OpenSubStorage(account, IDS_AUTORESPONDER, kMode, true, true))
        CAutoResponderProfile::EnumStorage(container.GetStorage(), m_AutoResponders, false);
    if (container.OpenSubStorage(account, IDS_REDIRECTOR, kMode, true, true))
        CForwardMailProfile::EnumStorage(container.GetStorage(), m_Redirectors, false);
    if (container.OpenSubStorage(account, IDS_SHIELDS, kMode, true, true))
        CSpamBlockProfile::EnumStorage(container.GetStorage(), m_SpamShields, false);
    container.Close();
}

void CMailBoxProfile::ReadMessages(_tagLoadProgressData* progress, const CString& index) {
    // The end notice goes out however the load ends, so that the host's progress display closes.
    struct EndNotice {
        _tagLoadProgressData* progress;
        ~EndNotice() {
            if (progress) SendMessage(progress->hWnd, progress->uEndMessage, 0, 100);
        }
    };
    if (progress) {
        SendMessage(progress->hWnd, progress->uStartMessage, 0, 100);
        progress->dwRecordCount = m_dwStoredMsgCount;
    }
    EndNotice end{progress};
    CStorageManager& messages = m_pStorages->messages;
    if (!messages.IsOpen()) return;
    try {
        if (!MessageFileUsable())
            MoveMessagesToFile();
        else
            OpenMessageFile();
    } catch (CStorageManagerException*) {
        m_bValidDbase = false;
        throw;
    }
    if (m_dwModified == 0 && !index.IsEmpty())
        CMessageList::EnumStorage(index, messages.GetStorage(), m_MessageList, this, progress);
    else
        CMessageList::EnumStorage(messages.GetStorage(), m_MessageList, this, progress);
    m_Index.fresh = false;
}

CStorageManagerException* CMailBoxProfile::ReadStorage(IStorage* parent, CString storageName,
                                                       _tagLoadProgressData* progress, bool loadMessages) {
    InitializeStorages(parent, storageName);
    CStorageManager& account = m_pStorages->account;
    if (!account.IsOpen()) return nullptr;
    ReadRecords();
    CString index;
    account.ReadString(IDS_MESSAGE_INDEX, index);
    ReadLists();
    ReadRules();
    // A message file that cannot be used is reported after the contacts are in, so that everything
    // else of the account is loaded whole.
    CStorageManagerException* deferred = nullptr;
    // An account without a name is dropped or deleted by its caller: no message file is made for it.
    if (loadMessages && !GetAccountName().IsEmpty()) {
        try {
            ReadMessages(progress, index);
        } catch (CStorageManagerException* e) {
            deferred = e;
        }
    }
    CStorageManager& contacts = m_pStorages->contacts;
    if (contacts.IsOpen()) CAddressEntry::EnumStorage(contacts.GetStorage(), m_AddressList, this);
    return deferred;
}

void CMailBoxProfile::ReadStorageData(IStorage* parent, CString storageName, _tagLoadProgressData* progress,
                                      bool loadMessages) {
    if (CStorageManagerException* deferred = ReadStorage(parent, storageName, progress, loadMessages))
        throw deferred;
}

void CMailBoxProfile::SaveStorageData(IStorage* parent, _tagLoadProgressData* progress, bool saveMessages) {
    {
        CSingleLock lock(&m_csLock, TRUE);
        if (m_strStorageName.IsEmpty())
            m_strStorageName = m_strAccountName.GetLength() > 30 ? RandomString(20, 2) : m_strAccountName;
    }
    Storages& storages = *m_pStorages;
    if (IsDeleted()) {
        // Closed first: an element cannot go while it is open.
        storages.contacts.Close();
        storages.messages.Close();
        storages.account.Close();
        storages.messageFile.Empty();
        if (parent) parent->DestroyElement(GetStorageName().GetString());
        return;
    }
    if (!storages.account.IsOpen()) InitializeStorages(parent, GetStorageName());
    if (!storages.account.IsOpen()) return;
    CStorageManager& account = storages.account;
    IStorage* store = account.GetStorage();

    SendStatus(progress, "Account: %s - Updating Autoresponders");
    for (CAutoResponderProfile& rule : m_AutoResponders)
        rule.SaveStorageData(store, resource(IDS_AUTORESPONDER));
    SendStatus(progress, "Account: %s - Updating Redirectors");
    for (CForwardMailProfile& rule : m_Redirectors) rule.SaveStorageData(store, resource(IDS_REDIRECTOR));
    SendStatus(progress, "Account: %s - Updating Message Filters");
    for (CSpamBlockProfile& rule : m_SpamShields) rule.SaveStorageData(store, resource(IDS_SHIELDS));

    CStringArray list;
    if (m_bFriendListChanged) {
        SendStatus(progress, "Account: %s - Updating Friends List");
        account.DeleteElement(IDS_FRIENDS);
        GetFriendList(list);
        account.WriteStringList(IDS_CACHE_FRIENDS, list, kListDelimiter);
    }
    if (m_bSpamListChanged) {
        SendStatus(progress, "Account: %s - Updating Spammer List");
        account.DeleteElement(IDS_SPAMMERS);
        GetSpamList(list);
        account.WriteStringList(IDS_CACHE_ENEMIES, list, kListDelimiter);
    }
    if (m_bFolderListChanged) {
        SendStatus(progress, "Account: %s - Updating Folder List");
        account.DeleteElement(IDS_FOLDERS);
        GetFolderList(list);
        account.WriteStringList(IDS_CACHE_FOLDERS, list, kListDelimiter);
    }

    if (saveMessages) {
        SendStatus(progress, "Account: %s - Updating Cached Messages");
        CStorageManager& messages = storages.messages;
        if (!messages.IsOpen()) messages.OpenSubStorage(store, IDS_MESSAGES, kMode, true, true);
        if (messages.IsOpen()) {
            if (!MessageFileUsable()) MoveMessagesToFile();
            const bool keepNone = GetSaveCopy() == 0;
            IStorage* messageStore = messages.GetStorage();
            for (CMessageList* message : m_MessageList) {
                if (!message) continue;
                if (keepNone) message->SetDeleted(true);
                message->SetParentStorage(messageStore);
                message->SaveMessage(messageStore);
            }
            account.WriteString(IDS_MESSAGE_INDEX, BuildMessageIndex());
            m_dwModified = 0;
        }
        SendStatus(progress, "Account: %s - Updating Contact List");
    }

    CStorageManager& contacts = storages.contacts;
    if (!contacts.IsOpen()) contacts.OpenSubStorage(store, IDS_CONTACTS, kMode, true, true);
    if (contacts.IsOpen())
        for (CAddressEntry* contact : m_AddressList)
            if (contact) contact->SaveAddress(contacts.GetStorage());

    m_bFriendListChanged = m_bSpamListChanged = m_bFolderListChanged = false;
    WriteRecords();
    for (UINT older : kOlderStreams)
        if (resource(older).GetLength() < CWCSTORAGENAME) account.DeleteElement(older);
    CommitStorages(saveMessages);
}

// --- the message file's health

void CMailBoxProfile::IsValidDataFile(IStorage* parent, CString storageName) {
    InitializeStorages(parent, storageName);
    if (!m_pStorages->account.IsOpen() || !HasCurrentRecords()) return;
    ReadStringRecord();
    m_bValidDbase = GetDataFile().IsEmpty() || MessageFileUsable();
}

void CMailBoxProfile::ValidateDataFile(CString path) {
    if (m_pStorages->account.IsOpen() && HasCurrentRecords()) ReadStringRecord();
    if (!m_pStorages->messages.IsOpen()) return;
    const DWORD attributes = path.IsEmpty() ? INVALID_FILE_ATTRIBUTES : GetFileAttributes(path);
    // A directory at the path is no message file either.
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        MoveMessagesToFile();
    else
        SetDataFile(path);
    m_bValidDbase = true;
    WriteStringRecord();
}

// --- enumeration

namespace {

// The sub-storages of parent in enumeration order, by their full names.
std::vector<std::u16string> subStorages(IStorage* parent) {
    std::vector<std::u16string> names;
    IEnumSTATSTG* elements = nullptr;
    if (FAILED(parent->EnumElements(0, nullptr, 0, &elements)) || !elements) return names;
    STATSTG stat;
    ULONG fetched = 0;
    while (elements->Next(1, &stat, &fetched) == S_OK && fetched == 1) {
        if (stat.type == STGTY_STORAGE) names.emplace_back(stat.pwcsName ? stat.pwcsName : u"");
        CoTaskMemFree(stat.pwcsName);
    }
    elements->Release();
    return names;
}

CString foldedName(const CString& name) {
    CString folded(name);
    folded.MakeUpper();
    return folded;
}

// The account name a sub-storage holds, read without opening it for writing; empty when it has none.
CString storedAccountName(IStorage* parent, const CString& element) {
    CString name;
    try {
        CStorageManager account;
        if (!account.OpenSubStorage(parent, element, STGM_READ | STGM_SHARE_EXCLUSIVE, false, false))
            return name;
        if (account.GetStreamSize(IDS_STRING_DATA_LENGTH) >= 4 &&
            account.GetStreamSize(IDS_NUMERIC_DATA) >= 1) {
            unsigned char length[4] = {};
            account.ReadData(IDS_STRING_DATA_LENGTH, length, 4);
            std::string text;
            account.ReadBytes(resource(IDS_STRING_DATA), text);
            const std::string_view all(text.c_str());
            if (readLE(length) <= all.size()) name = CString(all.substr(0, readLE(length)));
        } else {
            account.ReadString(IDS_ACCOUNT_NAME, name);
        }
        // Read only: nothing to commit.
        account.m_pStorage->Revert();
    } catch (CStorageManagerException* e) {
        e->Delete();
    }
    return name;
}

}  // namespace

void CMailBoxProfile::EnumStorage(IStorage* parent, std::list<CMailBoxProfile*>& list, CString userName,
                                  _tagLoadProgressData* progress, bool loadMessages, READ_TYPE readType) {
    if (!parent) return;
    // Accounts by folded name, the first of each name as FindProfile would find it.
    std::unordered_map<std::string, CMailBoxProfile*> byName;
    for (CMailBoxProfile* profile : list)
        if (profile) byName.emplace(foldedName(profile->GetAccountName()).str(), profile);
    auto find = [&](const CString& name) -> CMailBoxProfile* {
        auto hit = byName.find(foldedName(name).str());
        return hit == byName.end() ? nullptr : hit->second;
    };
    // Reads one account; false when a storage failure cut the read short (the failure has been shown
    // to the user as it was made). A message file that failed alone leaves the account whole.
    auto read = [&](CMailBoxProfile& profile, const CString& element) {
        try {
            if (readType == READ_FULL) {
                if (CStorageManagerException* deferred =
                        profile.ReadStorage(parent, element, progress, loadMessages))
                    deferred->Delete();
            } else if (readType == READ_VALIDITY_CHECK) {
                profile.IsValidDataFile(parent, element);
            }
            return true;
        } catch (CStorageManagerException* e) {
            e->Delete();
            return false;
        }
    };

    std::vector<std::u16string> doomed;
    for (const std::u16string& wide : subStorages(parent)) {
        const CString element(wide.c_str());
        CString trimmed(element);
        trimmed.Trim();
        if (trimmed.IsEmpty()) {
            // An empty name is out of reach of every other call; a blank one that holds data is kept.
            if (wide.empty() || !elementHoldsData(parent, wide)) doomed.push_back(wide);
            continue;
        }
        CMailBoxProfile* found = find(trimmed);
        // A storage named other than its account (a long name gets a random one) joins by the name it holds.
        if (!found && readType == READ_FULL) found = find(storedAccountName(parent, element));
        if (found) {
            found->SetProfileUserName(userName);
            if (!read(*found, element)) continue;
            if (found->GetAccountName().IsEmpty()) found->DeleteEntry();
            continue;
        }
        if (readType != READ_FULL && readType != READ_VALIDITY_CHECK) continue;
        if (readType == READ_FULL && !elementHoldsData(parent, wide)) {
            doomed.push_back(wide);
            continue;
        }
        auto profile = std::make_unique<CMailBoxProfile>();
        profile->SetProfileUserName(userName);
        const bool whole = read(*profile, element);
        if (whole && !profile->GetAccountName().IsEmpty()) {
            byName.emplace(foldedName(profile->GetAccountName()).str(), profile.get());
            list.push_back(profile.release());
            continue;
        }
        // A storage that cannot be read, or yields no name, is left as it is: it holds data.
        profile->UnloadMessages();
        Storages& storages = *profile->m_pStorages;
        for (CStorageManager* storage : {&storages.contacts, &storages.messages, &storages.account})
            if (storage->IsOpen()) storage->m_pStorage->Revert();
        CString text;
        text.Format("Account storage \"%s\" holds no readable account; it was left as it is.",
                    element.GetString());
        CErrorWindow::ReportError(text);
    }
    for (const std::u16string& name : doomed) parent->DestroyElement(name.c_str());
}
