#include "util/CFileManager.h"

#include "platform/CFile.h"
#include "util/CFileName.h"

CFileManager::~CFileManager() { RemoveTempFiles(); }

void CFileManager::AddTempFile(CString path) {
    CString upper = path;
    upper.MakeUpper();
    if (!m_Listed.insert(upper.str()).second) return;
    m_TempFiles.push_back(upper);
    m_Paths.push_back(path);
}

void CFileManager::RemoveTempFiles() {
    for (const CString& path : m_Paths) {
        if (!CFileName(path).Exist()) continue;
        try {
            CFile::Remove(path);
        } catch (CFileException* e) {
            e->Delete();
        }
    }
    m_TempFiles.clear();
    m_Paths.clear();
    m_Listed.clear();
}
