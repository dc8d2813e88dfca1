// One cached message of a POP3 mailbox: the header fields the rest of the system filters on, the
// message's identifier and size on the server, its flags and spam tag, the raw header text, and the link
// to the place in the account's message storage that holds the record and its body. (One record, not a
// list, despite the name.)
#pragma once

#include "platform/CCriticalSection.h"
#include "platform/CFile.h"
#include "platform/CMemFile.h"
#include "platform/CObject.h"
#include "platform/CString.h"
#include "platform/CTime.h"
#include "platform/WindowMessages.h"

#include <list>

class IStorage;
class CMailBoxProfile;

enum enum_MsgType : DWORD { MsgReceived = 0, MsgSent = 1 };

class CMessageList : public CObject {
    DECLARE_DYNAMIC(CMessageList)
public:
    using enum enum_MsgType;  // CMessageList::MsgReceived works as well as MsgReceived
    // A fixed underlying type, so that a caller's out-of-range value is still a value (and gives false).
    enum FindType : int { FindPhrase = 0, FindAllWords = 1, FindAnyWord = 2 };

    // The parent storage is not owned. The record starts in its reset state (see Reset).
    explicit CMessageList(IStorage* parent = nullptr);
    // Copies everything but the lock and the body buffer: a copy holds no body buffer.
    CMessageList(const CMessageList& other);
    CMessageList& operator=(const CMessageList& other);
    ~CMessageList() override;

    // Records are compared and found by their id alone.
    bool operator==(const CMessageList& other) const { return m_dwID == other.m_dwID; }
    bool operator==(DWORD id) const { return m_dwID == id; }
    bool operator!=(const CMessageList& other) const { return m_dwID != other.m_dwID; }
    bool operator!=(DWORD id) const { return m_dwID != id; }
    bool operator<(const CMessageList& other) const { return m_dwID < other.m_dwID; }
    bool operator>(const CMessageList& other) const { return m_dwID > other.m_dwID; }

    // --- filling
    // What the POP3 client calls with a fetched header: marks dirty, scans the header (fields already
    // filled keep their values), then sets id, size and type.
    void SetData(const CString& header, DWORD id, DWORD size, enum_MsgType type);
    // The owning account's fields; no lock, no dirty mark.
    void SetMailBox(const CString& serverName, const CString& emailAddress, const CString& outgoingServer,
                    const CString& accountName);
    void SetParentStorage(IStorage* parent) { m_pParentStorage = parent; }
    IStorage* GetParentStorage() const { return m_pParentStorage; }

    // Under the record's lock. SetSeen/SetRead mark dirty only when the value changes; SetValid and
    // SetDeleted never touch the dirty mark.
    void SetSeen(bool seen);
    void SetRead(bool read);
    void SetValid(bool valid);
    void SetDeleted(bool deleted);
    // Under the lock; replaced (and dirty) only when the text differs ignoring case.
    void SetDataFile(const CString& dataFile);
    void SetFolderLocation(const CString& folder);
    // SetSpamTag takes the lock, ClearSpamTag does not; neither marks dirty.
    void SetSpamTag();
    void ClearSpamTag();

    // --- reading
    const CString& GetReturnPath() const { return m_strReturnPath; }
    const CString& GetReceivedFrom() const { return m_strReceivedFrom; }
    const CString& GetMessageID() const { return m_strMessageID; }
    const CString& GetMessageDate() const { return m_strDate; }
    const CString& GetSenderName() const { return m_strSenderName; }
    // The Reply-To value, or the sender when there is none.
    const CString& GetReplyTo() const { return m_strReplyTo.IsEmpty() ? m_strSenderName : m_strReplyTo; }
    const CString& GetXMimeVersion() const { return m_strMimeVersion; }
    const CString& GetReciepient() const { return m_strRecipient; }
    const CString& GetSubject() const { return m_strSubject; }
    const CString& GetContentType() const { return m_strContentType; }
    const CString& GetContentTransferEncoding() const { return m_strContentTransferEncoding; }
    const CString& GetXUIDL() const { return m_strUIDL; }
    const CString& GetStatus() const { return m_strStatus; }
    const CString& GetOrganization() const { return m_strOrganization; }
    const CString& GetFolderLocation() const { return m_strFolderLocation; }
    const CString& GetDataFile() const { return m_strDataFile; }
    const CString& GetStorageName() const { return m_strStorageName; }
    const CString& GetServerName() const { return m_strServerName; }
    const CString& GetEmailAddress() const { return m_strEmailAddress; }
    const CString& GetOutgoingServer() const { return m_strOutgoingServer; }
    const CString& GetAccountName() const { return m_strAccountName; }
    const CString& GetHeader() const { return m_strHeader; }
    bool IsSeen() const { return m_bSeen; }
    bool IsRead() const { return m_bRead; }
    bool IsValid() const { return m_bValid; }
    bool IsDeleted() const { return m_bDeleted; }
    bool HasBody() const { return m_bHasBody; }
    bool IsDirty() const { return m_bDirty; }
    DWORD GetMsgSize() const { return m_dwSize; }
    DWORD GetID() const { return m_dwID; }
    DWORD GetSpamTag() const { return m_dwSpamTag; }
    enum_MsgType GetMessageType() const { return m_MsgType; }

    // The bare address between the first '<' and the first '>' of the sender; the whole sender text when
    // a bracket is missing or nothing lies between them.
    CString GetFormattedSenderName() const;
    // The same on GetReplyTo(); empty brackets give the sender.
    CString GetFormattedReplyTo() const;
    // The Date field as local calendar time (day name optional, day, three-letter English month, year
    // with two or four digits, time with optional seconds; the zone is ignored). False, with when
    // untouched, for an empty date or an unknown month. Sets the shared XString separator.
    bool GetMessageDate(CTime& when) const;

    // Searches the body when the record has one, else the header text. False for an unknown type and,
    // in the word modes, when text holds no words.
    bool Find(const CString& text, bool matchCase, FindType type);

    // --- the message store (each record is a sub-storage of the account's message storage)
    // Filled by the host and handed down to the loads: where progress goes and what to expect.
    struct _tagLoadProgressData {
        HWND hWnd;             // receives the notifications
        UINT uStatusMessage;   // carries a status text (account loads)
        UINT uRecordMessage;   // sent after each loaded record: wParam the profile, lParam the count
        UINT uStartMessage;    // sent when loading of messages starts (account loads)
        UINT uPercentMessage;  // posted with the percentage in lParam
        UINT uEndMessage;      // sent when loading ends (account loads)
        DWORD dwRecordCount;   // records expected; 0 is taken as 1
    };

    // Reads the record from its sub-storage of parent (created when missing). The older one-stream-per-
    // value layout is read when "Numeric Data" is missing or empty, and the record is then marked dirty
    // so that the next save writes the current layout. Storage failures are swallowed; the record keeps
    // what was read. A profile fills the record's account fields.
    void LoadMessage(IStorage* parent, CString storageName, CMailBoxProfile* profile);
    // Writes a dirty record (and its body buffer, if any) into its sub-storage of parent, removing the
    // older layout's streams; a record marked deleted has its sub-storage destroyed instead. Gives the
    // record a message id and storage name first when they are empty. A storage name already holding a
    // different message (the names come from the tick count and can repeat) is replaced by a fresh one
    // rather than overwritten. On a storage failure the record stays dirty.
    void SaveMessage(IStorage* parent);
    // Stores text as the body (through SaveMessage into the parent storage); nothing without one.
    void SetBody(CString& text);
    // The body text. Empties text; returns whether it is non-empty afterwards.
    bool GetBody(CString& text);
    // Loads every sub-storage of parent as a record and appends those with a size above 0 to list;
    // sub-storages that are empty, unnamed or fail to load are destroyed afterwards. progress may be null.
    static void EnumStorage(IStorage* parent, std::list<CMessageList*>& list, CMailBoxProfile* profile,
                            _tagLoadProgressData* progress);
    // The same over the sub-storages named in index (separated by ','), in index order.
    static void EnumStorage(CString index, IStorage* parent, std::list<CMessageList*>& list,
                            CMailBoxProfile* profile, _tagLoadProgressData* progress);

    // How a load reads the account fields of a profile (account name, incoming server, outgoing server,
    // e-mail address). The accounts part installs it; without one a profile fills nothing.
    using ProfileFieldsReader = void (*)(CMailBoxProfile* profile, CString& accountName, CString& serverName,
                                         CString& outgoingServer, CString& emailAddress);
    static void SetProfileFieldsReader(ProfileFieldsReader reader);

    // The flat record read by LoadMessage(CFile&): 48 fixed bytes plus the 8-byte extension.
    static int GetHeaderSize() { return 56; }

    // Reads one flat record at the file's position (little-endian numbers, texts without terminators),
    // scans its header and marks the record dirty. Returns the position after the record.
    // Throws CFileException (endOfFile) when the record is cut short or its lengths run past the end of
    // the file: every length is checked against the file's remaining size before anything is allocated
    // or changed, so a refused record is left as it was. Other file errors pass through as the file
    // throws them. The file must be seekable.
    ULONGLONG LoadMessage(CFile& file);

protected:
    // Defaults: numbers 0, flags false but valid, folder "inbox", every header field and account field
    // empty except the account name (kept), a fresh 20-character storage name.
    void Reset();
    // Fills the empty fields from the header's lines, defaults reply-to and message id, keeps the text;
    // an empty header marks the record deleted. Sets the shared XString separator to ':'.
    void ParseHeader(const CString& header);
    void InspectString(const char* line);
    // InspectString without touching the separator; returns how many keyword tests it made.
    int ScanLine(const char* line);
    // True when the line's name (the text before its first colon, untrimmed) equals keyword ignoring
    // case; field then gets the value after the colon, trimmed.
    static bool IntelliScan(const char* line, const char* keyword, CString& field);
    // length characters, each drawn after reseeding rand with tick * (index + 1) * length, tick being
    // GetTickCount() read once for the whole text.
    // mode 1: digits and letters ('0'-'9', 'A'-'Z', 'a'-'y'); 2: letters; 3: digits '0'-'8'; other: any
    // byte.
    CString RandomString(int length, int mode);
    // The storage-name hash: length bytes of a card cipher run over text, cut at the first zero byte,
    // written in base 32 with 0-9a-v. Ten bytes without a zero give 16 characters. Empty for length <= 0.
    static CString GetHash(const char* text, int length);
    // Regroups count inBits-wide signed input digits into outBits-wide ones (least significant first);
    // returns the number written. out must hold count * inBits / outBits + 2 digits. Widths below 1,
    // or adding up to more than 31, write nothing.
    static int baseConv(const char* in, int inBits, int count, char* out, int outBits);

    CCriticalSection m_csLock;
    IStorage* m_pParentStorage;
    CString m_strReturnPath;
    CString m_strReceivedFrom;
    CString m_strMessageID;
    CString m_strDate;
    CString m_strSenderName;
    CString m_strReplyTo;
    CString m_strMimeVersion;
    CString m_strRecipient;
    CString m_strSubject;
    CString m_strContentType;
    CString m_strContentTransferEncoding;
    CString m_strUIDL;
    CString m_strStatus;
    CString m_strOrganization;
    CString m_strFolderLocation;
    CString m_strDataFile;
    CString m_strStorageName;
    CString m_strServerName;
    CString m_strEmailAddress;
    CString m_strOutgoingServer;
    CString m_strAccountName;
    bool m_bSeen;
    bool m_bRead;
    bool m_bValid;
    bool m_bDeleted;
    bool m_bHasBody;
    bool m_bDirty;
    DWORD m_dwEncrypted;
    DWORD m_dwCompressed;
    DWORD m_dwSize;
    DWORD m_dwID;
    DWORD m_dwSpamTag;
    enum_MsgType m_MsgType;
    CString m_strHeader;
    CMemFile* m_pBodyBuffer;  // owned; only inside SetBody and after a flat-record load

private:
    void CopyFrom(const CMessageList& other);
};
