// vCard 3.0 and 4.0 files, the format address books export: reading every card of a file and writing
// cards back. Only what an address book entry keeps is read (N, FN, EMAIL, TEL, ADR, ORG, TITLE, URL,
// NOTE); other properties are passed over.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tavik::host {

// A malformed file; the text names the file and the line.
class VCardError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct VCardContact {
    struct Typed {
        std::vector<std::string> types;  // lower case: "work", "home", "cell", "fax", "pref" ...
        std::string value;
    };
    struct Address {
        std::vector<std::string> types;
        std::string street, city, region, postalCode, country;
    };
    std::string formattedName;                              // FN
    std::string prefix, given, additional, family, suffix;  // N
    std::string organization, title, url, note;
    std::vector<Typed> emails;
    std::vector<Typed> phones;
    std::vector<Address> addresses;
};

// Every card of text. Lines may be folded (a line end followed by a blank or tab) and end in CRLF or LF;
// values are unescaped (\\, \, \; \n). Throws VCardError naming source and the line for: a line without
// ':', a property outside BEGIN:VCARD ... END:VCARD, a nested BEGIN, a card left open, a VERSION other
// than 3.0 or 4.0, a card without FN or N, and an empty file.
std::vector<VCardContact> ParseVCards(const std::string& text, const std::string& source);
// The cards as vCard version "3.0" or "4.0": CRLF line ends, lines folded at 75 octets, values escaped.
std::string WriteVCards(const std::vector<VCardContact>& cards, const std::string& version);

}  // namespace tavik::host
