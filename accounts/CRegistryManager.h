// Holder of one open registry key, with table-driven reads and writes of whole records. Value names are
// mostly string resources of the library, given by number. Base of the registry-backed records.
//
// Failures are not reported except by OpenRegistryKey and the hive-file calls: a value that is missing,
// unreadable or larger than the 1000-byte buffers leaves its target as it was; write and delete
// failures are ignored. After a failed open the handle is null and every later call fails quietly.
#pragma once

#include <list>
#include <map>
#include <vector>

#include "platform/CArray.h"
#include "platform/CObject.h"
#include "platform/CString.h"
#include "platform/Registry.h"

class CRegistryManager : public CObject {
    DECLARE_DYNAMIC(CRegistryManager)

public:
    CRegistryManager() = default;
    // Does not close the key: owners call Close themselves.
    ~CRegistryManager() override = default;

    // Opens root\path, creating it and its missing parents (non-volatile, full access), and keeps the
    // handle; *disposition (when given) is REG_CREATED_NEW_KEY or REG_OPENED_EXISTING_KEY. A key already
    // held is replaced without being closed. Returns the registry's code (0 = success).
    LONG OpenRegistryKey(HKEY root, const char* path, DWORD* disposition);
    // The same with the path taken from the string resource pathId.
    LONG OpenRegistryKey(HKEY root, UINT pathId, DWORD* disposition);
    void Close();
    // Deletes the named direct sub-key, or with the empty name the open key itself; a key that still
    // has sub-keys stays.
    void DeleteKey(CString name);

    // Each entry: the value named by the string resource of its key into (or from) the field it points to.
    void GetStringValues(std::map<DWORD, CString*>& values);
    void GetDwordValues(std::map<DWORD, DWORD*>& values);  // the first 4 bytes, whatever the value's type
    void SetStringValues(std::map<DWORD, CString*>& values);
    void SetDwordValues(std::map<DWORD, DWORD*>& values);
    // Free pairs: Get empties the map, then takes every value of the key until the first that cannot be
    // read.
    void GetStringValues(std::map<CString, CString>& values);
    void SetStringValues(std::map<CString, CString>& values);

    // Anonymous lists, stored as "Value0", "Value1", ...: Get empties the container, then appends the data
    // of every value in enumeration order until the first that cannot be read. Set writes over existing
    // "Value%d" values and leaves longer old lists' tails: callers delete and recreate the key first.
    void GetAnonStringValues(CStringArray& values);
    void GetAnonStringValues(std::list<CString>& values);
    void SetAnonStringValues(CStringArray& values);
    void SetAnonStringValues(std::list<CString>& values);
    void GetAnonDwordValues(std::list<DWORD>& values);
    void SetAnonDwordValues(std::list<DWORD>& values);
    // The same into and from one block, for lists of thousands.
    void GetAnonDwordValues(std::vector<DWORD>& values);
    void SetAnonDwordValues(const std::vector<DWORD>& values);
    // Brings a key that holds such a number list, and nothing else, to values, writing only the entries
    // that differ and deleting a longer old list's tail: a save mostly finds the list it wrote last time
    // with a few numbers added. False, with nothing written, when the key holds anything else (a sub-key,
    // another name, type or size, a name out of its place): callers then delete and recreate it.
    bool UpdateAnonDwordValues(const std::vector<DWORD>& values);

    // Reads the named value through a buffer of size bytes; value changes only on success. The type is
    // received into the by-value argument only, as callers have always used it.
    void QueryValue(const char* name, DWORD type, CString& value, DWORD size);

    // Replace the open key's content from, or save it to, a file in the registry editor's text format.
    LONG LoadRegistryKey(const char* file);
    LONG SaveRegistryKey(const char* file);

    // The open key for derived records that walk its sub-keys; null when none is open.
    HKEY GetKeyHandle() const { return m_hKey; }

protected:
    HKEY m_hKey = nullptr;
};
