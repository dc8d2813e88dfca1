#include "contacts/CAddressData.h"

#include <utility>

CAddressData::CAddressData(CString street, CString city, CString state, CString postalCode, CString country)
    : m_strStreet(std::move(street)),
      m_strCity(std::move(city)),
      m_strState(std::move(state)),
      m_strPostalCode(std::move(postalCode)),
      m_strCountry(std::move(country)) {}

CString CAddressData::GetMailingAddress() const {
    return m_strStreet + "\r\n" + m_strCity + "," + m_strState + "\r\n" + m_strPostalCode + "\r\n" +
           m_strCountry;
}
