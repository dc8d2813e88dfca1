// One postal address in five parts.
#pragma once

#include <utility>

#include "platform/CString.h"

class CAddressData {
public:
    CAddressData() = default;
    CAddressData(CString street, CString city, CString state, CString postalCode, CString country);
    CAddressData(const CAddressData&) = default;
    CAddressData& operator=(const CAddressData&) = default;

    const CString& GetStreet() const { return m_strStreet; }
    const CString& GetCity() const { return m_strCity; }
    const CString& GetState() const { return m_strState; }
    const CString& GetPostalCode() const { return m_strPostalCode; }
    const CString& GetCountry() const { return m_strCountry; }
    void SetStreet(CString text) { m_strStreet = std::move(text); }
    void SetCity(CString text) { m_strCity = std::move(text); }
    void SetState(CString text) { m_strState = std::move(text); }
    void SetPostalCode(CString text) { m_strPostalCode = std::move(text); }
    void SetCountry(CString text) { m_strCountry = std::move(text); }

    // "street\r\ncity,state\r\npostal code\r\ncountry", empty parts included as they are.
    CString GetMailingAddress() const;

private:
    CString m_strStreet;
    CString m_strCity;
    CString m_strState;
    CString m_strPostalCode;
    CString m_strCountry;
};
