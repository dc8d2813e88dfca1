// A person's name in five parts.
#pragma once

#include <utility>

#include "platform/CString.h"

class CNameData {
public:
    CNameData() = default;
    CNameData(CString title, CString firstName, CString middleName, CString lastName, CString suffix);
    CNameData(const CNameData&) = default;
    CNameData& operator=(const CNameData&) = default;

    const CString& GetTitle() const { return m_strTitle; }
    const CString& GetFirstName() const { return m_strFirstName; }
    const CString& GetMiddleName() const { return m_strMiddleName; }
    const CString& GetLastName() const { return m_strLastName; }
    const CString& GetSuffix() const { return m_strSuffix; }
    void SetTitle(CString text) { m_strTitle = std::move(text); }
    void SetFirstName(CString text) { m_strFirstName = std::move(text); }
    void SetMiddleName(CString text) { m_strMiddleName = std::move(text); }
    void SetLastName(CString text) { m_strLastName = std::move(text); }
    void SetSuffix(CString text) { m_strSuffix = std::move(text); }

    // The five parts joined by single blanks, trimmed at both ends; an empty inner part leaves a double
    // blank ("Mr Ann  Lee").
    CString GetNameString() const;

private:
    CString m_strTitle;
    CString m_strFirstName;
    CString m_strMiddleName;
    CString m_strLastName;
    CString m_strSuffix;
};
