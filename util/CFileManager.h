// Remembers temporary files (decoded attachments and the like) and deletes them when it goes.
#pragma once

#include <list>
#include <string>
#include <unordered_set>

#include "platform/CString.h"

class CFileManager {
public:
    CFileManager() = default;
    CFileManager(const CFileManager& other) = default;
    CFileManager& operator=(const CFileManager& other) = default;
    // Deletes the remembered files.
    virtual ~CFileManager();

    // Listed in capitals; a path already listed (in any case) is not added again. The spelling first
    // given is kept for the deletion, since POSIX file names are case-sensitive.
    void AddTempFile(CString path);
    // Deletes every listed file that exists, ignoring failures, and empties the list.
    void RemoveTempFiles();

    const std::list<CString>& GetTempFiles() const { return m_TempFiles; }

private:
    std::list<CString> m_TempFiles;  // capitals
    std::list<CString> m_Paths;      // the same entries as given
    // The capitals again, so that a decoder listing thousands of files does not search the list for each.
    std::unordered_set<std::string> m_Listed;
};
