// A handle on one open compound file or sub-storage, with typed stream reads and writes. Names are
// given as text or as the number of a string resource. Unless a call says otherwise, a failing storage
// call stores its HRESULT in m_hResult and throws a new CStorageManagerException made from it.
#pragma once

#include <list>
#include <string>

#include "messages/CStorageManagerException.h"
#include "platform/CArray.h"
#include "platform/CString.h"
#include "platform/OleStorage.h"

class CStorageManager {
public:
    // Nothing open.
    CStorageManager();
    // Wraps an open storage, taking a reference of its own.
    explicit CStorageManager(IStorage* storage);
    // Opens the compound file, or creates it when it does not exist. Throws on failure.
    CStorageManager(const char* path, bool transacted);
    // Closes (commits) what is open.
    virtual ~CStorageManager();
    CStorageManager(const CStorageManager&) = delete;
    CStorageManager& operator=(const CStorageManager&) = delete;

    // Closes, then opens or creates the file as the path constructor does.
    void OpenStorageFile(const char* path, bool transacted);
    // Closes, then opens the named sub-storage of parent in mode (plus STGM_TRANSACTED when asked);
    // a missing one is created when create is true. False for a null parent; true when a storage is
    // open afterwards. Throws for any other failure (STG_E_FILENOTFOUND when missing and not created).
    bool OpenSubStorage(IStorage* parent, const char* name, DWORD mode, bool create, bool transacted);
    bool OpenSubStorage(IStorage* parent, UINT nameId, DWORD mode, bool create, bool transacted);

    // False without an open storage; true unless opening fails with STG_E_FILENOTFOUND. Never throws.
    bool StreamExists(const char* name);
    bool StreamExists(UINT nameId);
    bool StorageExists(const char* name);
    bool StorageExists(UINT nameId);  // the resource text is cut to 30 characters

    // 0 without an open storage or when the stream is missing.
    ULONG GetStreamSize(const char* name);
    ULONG GetStreamSize(UINT nameId);
    // Reads up to count bytes; 0 without an open storage or when the stream is missing.
    ULONG ReadData(const char* name, void* buffer, ULONG count);
    ULONG ReadData(UINT nameId, void* buffer, ULONG count);
    // The whole stream as text (up to its first zero byte); a missing stream leaves value untouched.
    // maxLength is not used.
    void ReadString(const char* name, CString& value, int maxLength = 0);
    void ReadString(UINT nameId, CString& value, int maxLength = 0);
    // The whole stream, zero bytes included; false (bytes untouched) when it is missing. Memory grows
    // with the bytes actually read, never with the size a damaged file claims.
    bool ReadBytes(const char* name, std::string& bytes);
    // Decimal text of at most 100 characters; a missing stream leaves value untouched.
    void ReadNumber(const char* name, DWORD& value);
    void ReadNumber(UINT nameId, DWORD& value);

    // Creates or replaces the stream with the bytes. False without an open storage.
    bool WriteData(const char* name, const void* data, ULONG count);
    bool WriteData(UINT nameId, const void* data, ULONG count);
    void WriteString(const char* name, const CString& value);
    void WriteString(UINT nameId, const CString& value);
    // The decimal text ("%u"), no terminator.
    void WriteNumber(const char* name, DWORD value);
    void WriteNumber(UINT nameId, DWORD value);

    // One stream: every entry preceded by the delimiter.
    void WriteStringList(UINT nameId, CStringArray& values, const char* delimiter);
    void WriteStringList(const char* name, CStringArray& values, const char* delimiter);
    // Splits the stream at any of the delimiters and appends each non-empty entry not already in values
    // (ignoring case).
    void ReadStringList(const char* name, CStringArray& values, const char* delimiters);
    void ReadStringList(UINT nameId, CStringArray& values, const char* delimiters);
    // One stream of 32-bit little-endian values.
    void WriteNumberList(UINT nameId, std::list<DWORD>& values);
    void WriteNumberList(const char* name, std::list<DWORD>& values);
    // Appends each value not already in the list; a trailing part of fewer than 4 bytes is ignored.
    void ReadNumberList(UINT nameId, std::list<DWORD>& values);
    void ReadNumberList(const char* name, std::list<DWORD>& values);

    // Every stream of the storage read as one text entry (appended unless present, ignoring case) or
    // as one decimal number (appended unless present). Throws "OpenStream Failed! Error #: %u" or
    // "ReadStream Failed: %s".
    void ReadStreamsIntoArray(CStringArray& values);
    void ReadStreamsIntoNumberList(std::list<DWORD>& values);

    // Destroys the stream or sub-storage; the result is only kept in m_hResult.
    void DeleteElement(const char* name);
    void DeleteElement(UINT nameId);
    // Copies the whole storage into destination. False without an open storage.
    bool CopyTo(IStorage* destination);

    // Commits and releases what is open. Never throws (a failing commit is kept in m_hResult).
    void Close();

    IStorage* GetStorage() const { return m_pStorage; }
    bool IsOpen() const { return m_pStorage != nullptr; }

    IStorage* m_pStorage = nullptr;
    HRESULT m_hResult = S_OK;

private:
    static CString NameOf(UINT nameId);
    // Stores the result and throws for a failure.
    void Check(HRESULT hr);
    // Opens a stream to read; null when it is missing (STG_E_FILENOTFOUND), throws on other failures.
    IStream* OpenForRead(const char* name);
    template <class Visit>
    void ForEachStream(Visit visit);
};
