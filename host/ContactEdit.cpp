#include "host/ContactEdit.h"

#include <algorithm>

#include "host/ManageSupport.h"

namespace tavik::host {

namespace {

bool Has(const std::vector<std::string>& types, const char* type) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

bool Same(const std::string& a, const std::string& b) {
    return CString(a.c_str()).CompareNoCase(b.c_str()) == 0;
}

// The file-as name, else the name's parts joined by single blanks (the entry's own name string keeps a
// double blank where a middle part is empty).
std::string Name(const CAddressEntry& e) {
    if (!e.GetFileAs().IsEmpty()) return std::string(e.GetFileAs());
    const CNameData& n = *const_cast<CAddressEntry&>(e).GetNameDataPtr();
    std::string out;
    for (const CString* part :
         {&n.GetTitle(), &n.GetFirstName(), &n.GetMiddleName(), &n.GetLastName(), &n.GetSuffix()})
        if (!part->IsEmpty()) out += (out.empty() ? "" : " ") + std::string(*part);
    return out;
}

std::string FirstEmail(const CAddressEntry& e) {
    for (int t = 0; t < EMAILTYPE_COUNT; ++t) {
        CString address = e.GetEmailAddress(static_cast<EMAILTYPE>(t));
        if (!address.IsEmpty()) return std::string(address);
    }
    return "";
}

}  // namespace

std::vector<CAddressEntry*> LiveContacts(CMailBoxProfile& account) {
    std::vector<CAddressEntry*> out;
    for (CAddressEntry* e : account.GetAddressList())
        if (e && !e->IsDeleted()) out.push_back(e);
    return out;
}

std::string FormatContactList(CMailBoxProfile& account, bool json) {
    std::string out = json ? "[" : "";
    bool first = true;
    for (CAddressEntry* e : LiveContacts(account)) {
        if (json) {
            std::string emails;
            for (int t = 0; t < EMAILTYPE_COUNT; ++t) {
                CString address = e->GetEmailAddress(static_cast<EMAILTYPE>(t));
                if (!address.IsEmpty()) emails += (emails.empty() ? "" : ", ") + Json(std::string(address));
            }
            out += std::string(first ? "\n" : ",\n") + "  {\"id\": " + std::to_string(e->GetProfileID()) +
                   ", \"name\": " + Json(Name(*e)) + ", \"company\": " + Json(std::string(e->GetCompany())) +
                   ", \"emails\": [" + emails + "]}";
        } else {
            out += std::to_string(e->GetProfileID()) + "\t" + Name(*e) + "\t" + FirstEmail(*e) + "\n";
        }
        first = false;
    }
    if (json) out += first ? "]\n" : "\n]\n";
    return out;
}

VCardContact ToVCard(const CAddressEntry& e) {
    VCardContact card;
    CAddressEntry& entry = const_cast<CAddressEntry&>(e);
    const CNameData& n = *entry.GetNameDataPtr();
    card.prefix = n.GetTitle();
    card.given = n.GetFirstName();
    card.additional = n.GetMiddleName();
    card.family = n.GetLastName();
    card.suffix = n.GetSuffix();
    card.formattedName = Name(e);
    card.organization = e.GetCompany();
    card.title = e.GetJobTitle();
    card.url = e.GetUrl();
    card.note = e.GetComments();
    for (int t = 0; t < EMAILTYPE_COUNT; ++t) {
        CString address = e.GetEmailAddress(static_cast<EMAILTYPE>(t));
        if (address.IsEmpty()) continue;
        std::vector<std::string> types = {"internet"};
        if (t == EMAIL_PRIMARY) types.push_back("pref");
        card.emails.push_back({types, std::string(address)});
    }
    static const std::vector<std::string> kPhoneTypes[PHONETYPE_COUNT] = {
        {"work", "voice"}, {"work", "voice"}, {"home", "voice"}, {"home", "voice"}, {"cell"},
        {"pager"},         {"work", "fax"},   {"home", "fax"},   {"voice"}};
    for (int t = 0; t < PHONETYPE_COUNT; ++t) {
        CString number = e.GetPhoneNumber(static_cast<PHONETYPE>(t));
        if (!number.IsEmpty()) card.phones.push_back({kPhoneTypes[t], std::string(number)});
    }
    for (int t = 0; t < ADDRESSTYPE_COUNT; ++t) {
        CAddressData a = e.GetAddressData(static_cast<ADDRESSTYPE>(t));
        std::string street(a.GetStreet()), city(a.GetCity()), state(a.GetState()), code(a.GetPostalCode()),
            country(a.GetCountry());
        if ((street + city + state + code + country).empty()) continue;
        card.addresses.push_back(
            {{t == ADDRESS_BUSINESS ? "work" : "home"}, street, city, state, code, country});
    }
    return card;
}

void FromVCard(const VCardContact& card, CAddressEntry& entry) {
    CNameData name(card.prefix.c_str(), card.given.c_str(), card.additional.c_str(), card.family.c_str(),
                   card.suffix.c_str());
    // A card with only FN keeps it as the last name, so that the entry has a name of its own.
    if (std::string(name.GetNameString()).empty()) name.SetLastName(card.formattedName.c_str());
    entry.SetNameData(name);
    CAddressEntry probe;
    probe.SetNameData(name);
    if (!card.formattedName.empty() && card.formattedName != Name(probe))
        entry.SetFileAs(card.formattedName.c_str());
    entry.SetCompany(card.organization.c_str());
    entry.SetJobTitle(card.title.c_str());
    entry.SetUrl(card.url.c_str());
    entry.SetComments(card.note.c_str());

    std::vector<const VCardContact::Typed*> emails;
    for (const auto& e : card.emails)
        if (Has(e.types, "pref")) emails.push_back(&e);
    for (const auto& e : card.emails)
        if (!Has(e.types, "pref")) emails.push_back(&e);
    for (size_t i = 0; i < emails.size() && i < EMAILTYPE_COUNT; ++i)
        entry.SetEmailAddress(static_cast<EMAILTYPE>(i), emails[i]->value.c_str());

    bool used[PHONETYPE_COUNT] = {};
    auto place = [&](std::initializer_list<PHONETYPE> choices, const std::string& number) {
        for (PHONETYPE t : choices)
            if (!used[t]) {
                used[t] = true;
                entry.SetPhoneNumber(t, number.c_str());
                return;
            }
    };
    for (const auto& p : card.phones) {
        const auto& t = p.types;
        if (Has(t, "fax"))
            place({Has(t, "home") ? PHONE_HOME_FAX : PHONE_BUSINESS_FAX, PHONE_OTHER}, p.value);
        else if (Has(t, "cell"))
            place({PHONE_MOBILE, PHONE_OTHER}, p.value);
        else if (Has(t, "pager"))
            place({PHONE_PAGER, PHONE_OTHER}, p.value);
        else if (Has(t, "work"))
            place({PHONE_BUSINESS, PHONE_BUSINESS2, PHONE_OTHER}, p.value);
        else if (Has(t, "home"))
            place({PHONE_HOME, PHONE_HOME2, PHONE_OTHER}, p.value);
        else
            place({PHONE_OTHER, PHONE_HOME2, PHONE_BUSINESS2}, p.value);
    }
    bool placed[ADDRESSTYPE_COUNT] = {};
    for (const auto& a : card.addresses) {
        ADDRESSTYPE t = Has(a.types, "work") ? ADDRESS_BUSINESS : ADDRESS_HOME;
        if (placed[t]) t = t == ADDRESS_HOME ? ADDRESS_BUSINESS : ADDRESS_HOME;
        if (placed[t]) continue;
        placed[t] = true;
        entry.SetMailingAddress(t, CAddressData(a.street.c_str(), a.city.c_str(), a.region.c_str(),
                                                a.postalCode.c_str(), a.country.c_str()));
    }
}

CAddressEntry& FindContact(CMailBoxProfile& account, const std::string& key) {
    std::vector<CAddressEntry*> live = LiveContacts(account);
    if (!key.empty() && key.find_first_not_of("-0123456789") == std::string::npos)
        for (CAddressEntry* e : live)
            if (std::to_string(e->GetProfileID()) == key) return *e;
    CAddressEntry* found = nullptr;
    for (CAddressEntry* e : live) {
        if (!Same(Name(*e), key) && !Same(std::string(e->GetAddressName()), key)) continue;
        if (found) throw SessionError("more than one contact is named '" + key + "': give its id");
        found = e;
    }
    if (!found)
        throw SessionError("no contact '" + key + "' in " + std::string(account.GetAccountName()) +
                           " (see 'tavik contact list')");
    return *found;
}

std::vector<std::string> ContactAddresses(CMailBoxProfile& account) {
    std::vector<std::string> out;
    for (CAddressEntry* e : LiveContacts(account))
        for (int t = 0; t < EMAILTYPE_COUNT; ++t) {
            std::string address(e->GetEmailAddress(static_cast<EMAILTYPE>(t)));
            if (address.empty()) continue;
            bool seen = false;
            for (const std::string& have : out) seen = seen || Same(have, address);
            if (!seen) out.push_back(address);
        }
    return out;
}

}  // namespace tavik::host
