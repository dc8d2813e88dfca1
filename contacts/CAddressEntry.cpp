// A contact's fields, their comparisons and the text record they are stored as.
#include "contacts/CAddressEntry.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "platform/Kernel.h"

IMPLEMENT_DYNAMIC(CAddressEntry, CRegistryManager)

static_assert(sizeof(CAddressEntry::_tagSTR_ADDRESSENTRY) == CAddressEntry::kLengthsSize);
static_assert(offsetof(CAddressEntry::_tagSTR_ADDRESSENTRY, dwEmail) == 56);
static_assert(offsetof(CAddressEntry::_tagSTR_ADDRESSENTRY, dwAddress) == 324);
static_assert(offsetof(CAddressEntry::_tagSTR_ADDRESSENTRY, dwTitle) == 384);

namespace {

bool InRange(int type, int count) { return type >= 0 && type < count; }

template <class Map, class Key>
typename Map::mapped_type Lookup(const Map& map, Key key) {
    auto it = map.find(key);
    return it == map.end() ? typename Map::mapped_type() : it->second;
}

// The parts of an address and of a name, in stored order.
std::array<CString, 5> Parts(const CAddressData& a) {
    return {a.GetStreet(), a.GetCity(), a.GetState(), a.GetPostalCode(), a.GetCountry()};
}

std::array<CString, 5> Parts(const CNameData& n) {
    return {n.GetTitle(), n.GetFirstName(), n.GetMiddleName(), n.GetLastName(), n.GetSuffix()};
}

}  // namespace

CAddressEntry::CAddressEntry() { ResetValues(); }

CAddressEntry::~CAddressEntry() = default;

CAddressEntry::CAddressEntry(const CAddressEntry& other) : CRegistryManager() { *this = other; }

CAddressEntry& CAddressEntry::operator=(const CAddressEntry& other) {
    if (this == &other) return *this;
    m_nProfileID = other.m_nProfileID;
    m_strCompany = other.m_strCompany;
    m_strJobTitle = other.m_strJobTitle;
    m_strFileAs = other.m_strFileAs;
    m_strUrl = other.m_strUrl;
    m_strComments = other.m_strComments;
    m_mapAddress = other.m_mapAddress;
    m_mapPhone = other.m_mapPhone;
    m_mapEmail = other.m_mapEmail;
    m_NameData = other.m_NameData;
    m_bDeleted = other.m_bDeleted;
    m_bDirty = other.m_bDirty;
    m_strAccountName = other.m_strAccountName;
    m_strServerName = other.m_strServerName;
    m_strOutgoingServer = other.m_strOutgoingServer;
    m_strEmailAddress = other.m_strEmailAddress;
    m_strStoredName = other.m_strStoredName;
    return *this;
}

void CAddressEntry::ResetValues() {
    m_strCompany.Empty();
    m_strJobTitle.Empty();
    m_strFileAs.Empty();
    m_strUrl.Empty();
    m_strComments.Empty();
    m_mapAddress.clear();
    m_mapPhone.clear();
    m_mapEmail.clear();
    m_bDeleted = false;
    m_bDirty = false;
    std::srand(GetTickCount());
    m_nProfileID = std::rand();
}

CString CAddressEntry::GetAddressName() const { return m_NameData.GetNameString(); }

CString CAddressEntry::GetDisplayName() const {
    return m_strFileAs.IsEmpty() ? GetAddressName() : m_strFileAs;
}

CString CAddressEntry::GetPhoneNumber(PHONETYPE type) const { return Lookup(m_mapPhone, type); }

CString CAddressEntry::GetEmailAddress(EMAILTYPE type) const { return Lookup(m_mapEmail, type); }

CString CAddressEntry::GetMailingAddress(ADDRESSTYPE type) const {
    return GetAddressData(type).GetMailingAddress();
}

CAddressData CAddressEntry::GetAddressData(ADDRESSTYPE type) const { return Lookup(m_mapAddress, type); }

void CAddressEntry::SetCompany(CString text) {
    m_strCompany = text;
    m_bDirty = true;
}

void CAddressEntry::SetJobTitle(CString text) {
    m_strJobTitle = text;
    m_bDirty = true;
}

void CAddressEntry::SetUrl(CString text) {
    m_strUrl = text;
    m_bDirty = true;
}

void CAddressEntry::SetComments(CString text) {
    m_strComments = text;
    m_bDirty = true;
}

void CAddressEntry::SetNameData(const CNameData& name) {
    m_NameData = name;
    m_bDirty = true;
}

void CAddressEntry::SetPhoneNumber(PHONETYPE type, CString number) {
    if (!InRange(type, PHONETYPE_COUNT)) return;
    m_mapPhone[type] = number;
    m_bDirty = true;
}

void CAddressEntry::SetEmailAddress(EMAILTYPE type, CString address) {
    if (!InRange(type, EMAILTYPE_COUNT)) return;
    m_mapEmail[type] = address;
    m_bDirty = true;
}

void CAddressEntry::SetMailingAddress(ADDRESSTYPE type, const CAddressData& address) {
    if (!InRange(type, ADDRESSTYPE_COUNT)) return;
    m_mapAddress[type] = address;
    m_bDirty = true;
}

CString CAddressEntry::BuildMailBoxStringData() const {
    CString text = m_strCompany + m_strJobTitle + m_strFileAs + m_strUrl + m_strComments;
    for (const auto& [type, number] : m_mapPhone) text += number;
    for (const auto& [type, address] : m_mapEmail) text += address;
    for (const auto& [type, address] : m_mapAddress)
        for (const CString& part : Parts(address)) text += part;
    text += m_NameData.GetTitle() + m_NameData.GetFirstName() + m_NameData.GetMiddleName() +
            m_NameData.GetLastName() + m_NameData.GetSuffix();
    return text;
}

void CAddressEntry::BuildStringDataLengths(_tagSTR_ADDRESSENTRY& lengths) const {
    std::memset(&lengths, 0, sizeof lengths);
    auto length = [](const CString& text) { return static_cast<DWORD>(text.GetLength()); };
    lengths.dwCompany = length(m_strCompany);
    lengths.dwJobTitle = length(m_strJobTitle);
    lengths.dwFileAs = length(m_strFileAs);
    lengths.dwUrl = length(m_strUrl);
    lengths.dwComments = length(m_strComments);
    for (const auto& [type, number] : m_mapPhone) lengths.dwPhone[type] = length(number);
    for (const auto& [type, address] : m_mapEmail) lengths.dwEmail[type] = length(address);
    for (const auto& [type, address] : m_mapAddress)
        for (int f = 0; const CString& part : Parts(address)) lengths.dwAddress[type][f++] = length(part);
    lengths.dwTitle = length(m_NameData.GetTitle());
    lengths.dwFirstName = length(m_NameData.GetFirstName());
    lengths.dwMiddleName = length(m_NameData.GetMiddleName());
    lengths.dwLastName = length(m_NameData.GetLastName());
    lengths.dwSuffix = length(m_NameData.GetSuffix());
}

void CAddressEntry::ParseAddressEntryData(char* data, _tagSTR_ADDRESSENTRY* lengths) {
    if (!data || !lengths) return;
    const size_t size = std::strlen(data);
    size_t at = 0;
    // The next field's text, or false when it runs past the data (which ends the parse).
    auto next = [&](DWORD length, CString& text) {
        if (length > size - at) return false;
        text.str().assign(data + at, length);
        at += length;
        return true;
    };
    for (auto [length, target] : {std::pair{lengths->dwCompany, &m_strCompany},
                                  {lengths->dwJobTitle, &m_strJobTitle},
                                  {lengths->dwFileAs, &m_strFileAs},
                                  {lengths->dwUrl, &m_strUrl},
                                  {lengths->dwComments, &m_strComments}}) {
        if (!next(length, *target)) return;
    }
    CString text;
    for (int k = 0; k < PHONETYPE_COUNT; ++k) {
        if (!next(lengths->dwPhone[k], text)) return;
        m_mapPhone[static_cast<PHONETYPE>(k)] = std::move(text);
    }
    for (int k = 0; k < EMAILTYPE_COUNT; ++k) {
        if (!next(lengths->dwEmail[k], text)) return;
        m_mapEmail[static_cast<EMAILTYPE>(k)] = std::move(text);
    }
    // A part that does not fit ends the parse; the parts before it are kept.
    for (int a = 0; a < ADDRESSTYPE_COUNT; ++a) {
        CAddressData& address = m_mapAddress[static_cast<ADDRESSTYPE>(a)];
        std::array<CString, 5> p = Parts(address);
        int f = 0;
        while (f < 5 && next(lengths->dwAddress[a][f], p[f])) ++f;
        address =
            CAddressData(std::move(p[0]), std::move(p[1]), std::move(p[2]), std::move(p[3]), std::move(p[4]));
        if (f < 5) return;
    }
    const DWORD nameLengths[5] = {lengths->dwTitle, lengths->dwFirstName, lengths->dwMiddleName,
                                  lengths->dwLastName, lengths->dwSuffix};
    std::array<CString, 5> p = Parts(m_NameData);
    int f = 0;
    while (f < 5 && next(nameLengths[f], p[f])) ++f;
    m_NameData =
        CNameData(std::move(p[0]), std::move(p[1]), std::move(p[2]), std::move(p[3]), std::move(p[4]));
}
