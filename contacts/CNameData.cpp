#include "contacts/CNameData.h"

#include <utility>

CNameData::CNameData(CString title, CString firstName, CString middleName, CString lastName, CString suffix)
    : m_strTitle(std::move(title)),
      m_strFirstName(std::move(firstName)),
      m_strMiddleName(std::move(middleName)),
      m_strLastName(std::move(lastName)),
      m_strSuffix(std::move(suffix)) {}

CString CNameData::GetNameString() const {
    CString text =
        m_strTitle + " " + m_strFirstName + " " + m_strMiddleName + " " + m_strLastName + " " + m_strSuffix;
    text.Trim();
    return text;
}
