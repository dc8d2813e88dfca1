// Arbitrary bytes as a fetched header (scanned, then read through every getter, the formatted addresses,
// the date and the three search modes) and as a flat record file. Only CFileException may come out of
// the flat-record load; anything else (a crash, a sanitizer report, another exception) is a finding.
// The same bytes also go through XString's element and removal operations and CStringToken, with
// properties that must hold for any text checked along the way.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "messages/CMessageList.h"
#include "platform/CException.h"
#include "platform/CMemFile.h"
#include "util/CStringEx.h"
#include "util/CStringToken.h"
#include "util/XString.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

// Reads every field; the lengths only keep the reads from being optimised away.
size_t readAll(CMessageList& record) {
    size_t n = 0;
    for (const CString* s :
         {&record.GetReturnPath(), &record.GetReceivedFrom(), &record.GetMessageID(),
          &record.GetMessageDate(), &record.GetSenderName(), &record.GetReplyTo(), &record.GetXMimeVersion(),
          &record.GetReciepient(), &record.GetSubject(), &record.GetContentType(),
          &record.GetContentTransferEncoding(), &record.GetXUIDL(), &record.GetStatus(),
          &record.GetOrganization(), &record.GetFolderLocation(), &record.GetHeader()}) {
        n += static_cast<size_t>(s->GetLength());
    }
    n += static_cast<size_t>(record.GetFormattedSenderName().GetLength());
    n += static_cast<size_t>(record.GetFormattedReplyTo().GetLength());
    CTime when;
    if (record.GetMessageDate(when)) n += static_cast<size_t>(when.GetTime() & 1);
    return n;
}

void searchAll(CMessageList& record, const CString& needle, bool matchCase) {
    bool phrase = record.Find(needle, matchCase, CMessageList::FindPhrase);
    bool all = record.Find(needle, matchCase, CMessageList::FindAllWords);
    bool any = record.Find(needle, matchCase, CMessageList::FindAnyWord);
    // A phrase without blanks is its one word; every word found implies some word found.
    if (!needle.IsEmpty() && needle.Find(' ') < 0) check(phrase == all && all == any);
    if (all) check(any);
    check(!record.Find(needle, matchCase, static_cast<CMessageList::FindType>(7)));
}

void header(const std::string& bytes, const CString& needle, bool matchCase) {
    CMessageList record;
    record.SetData(CString(bytes.data(), static_cast<int>(bytes.size())), 42, 1000, MsgReceived);
    check(record.GetID() == 42 && record.IsDirty() && !record.GetMessageID().IsEmpty());
    readAll(record);
    searchAll(record, needle, matchCase);
    // A second scan keeps every field.
    CString subject = record.GetSubject(), sender = record.GetSenderName();
    record.SetData(record.GetHeader(), 43, 1000, MsgReceived);
    check(record.GetSubject() == subject && record.GetSenderName() == sender);
}

void flatRecord(const std::string& bytes, const CString& needle) {
    std::vector<BYTE> copy(bytes.begin(), bytes.end());
    CMemFile file(copy.data(), static_cast<UINT>(copy.size()));
    CMessageList record;
    try {
        ULONGLONG end = record.LoadMessage(file);
        check(end <= copy.size() && record.IsDirty());
        readAll(record);
        searchAll(record, needle, true);
    } catch (CFileException* e) {
        e->Delete();
    }
}

void elements(std::string text, const uint8_t* data, size_t size) {
    // Texts here are C strings, as the library's callers hand them over.
    for (char& c : text) {
        if (c == '\0') c = 'x';
    }
    auto pick = [&](size_t at) { return at < size ? data[at] : uint8_t(0); };
    const char sep = static_cast<char>(pick(1) ? pick(1) : '|');
    const int a = static_cast<int>(pick(2) % 24) - 4, b = static_cast<int>(pick(3) % 24) - 4;
    XString x(text.c_str());
    XString::SetSeparator(sep);
    const int seps = x.Count(sep);

    check(x.Elements(0, -1) == x);
    XString range = x.Elements(a, b);
    if (a >= 0 && b >= a) check(range.Count(sep) == b - a);
    if (a >= 0 && a <= seps) {
        XString e = x.Element(a);
        check(x.SetElement(a, e) == x);
        check(x.Elements(a, a) == e);
        check(x.ElementIndex(e) >= 0 && x.ElementIndex(e) <= a);
    }
    if (a >= 0 && sep != 'v') check(x.SetElement(a, CString("v")).Element(a) == "v");
    check(x.ElementSortString().Count(sep) == seps);
    check(x.ElementSortChar().Count(sep) == seps);
    // Numbers come back as text that may hold a separator made of digits, signs, '.' or "nan"/"inf".
    XString ints = x.ElementSortInt(), doubles = x.ElementSortDouble();
    if (std::strchr("0123456789+-.aefinAEFIN", sep) == nullptr) {
        check(ints.Count(sep) == seps && doubles.Count(sep) == seps);
    }
    XString::RestoreSeparator();

    XString pattern = x.Mid(a < 0 ? 0 : a, 1 + b % 3);
    if (!pattern.IsEmpty()) {
        check(x.RemoveAll(pattern).Find(pattern) < 0);
        check(x.NCRemoveAll(pattern).NCFind(pattern) < 0);
        XString replaced(x);
        int n = replaced.ReplaceAll(XString("#"), pattern);
        check(n == x.Count(pattern));
        XString noCase(x);
        noCase.NCReplaceAll(XString(""), pattern);
        check(noCase.NCFind(pattern) < 0 || pattern.GetLength() > 1);
    }
    check(x.Remove(a, b).GetLength() <= x.GetLength());
    check(x.Insert(XString("ab"), a).GetLength() >= x.GetLength());
    x.FromTo(a, b);
    x.ReplaceText(XString(text.substr(0, 64).c_str()));
    XString tabs = x.ReplaceTabs(1 + (b & 7));
    check(tabs.Find('\t') < 0);
    int k = x.FindIndex(sep, a);
    if (a > 0 && k >= 0) check(x.GetAt(k) == sep);
    x.NCFind(sep, a);
    x.GetDoubleFormatString();

    // CStringEx's fields and searches agree with each other and with a plain search.
    CStringEx ex(text.c_str());
    const char delim[] = {sep, '\0'};
    const int fields = ex.GetFieldCount(delim);
    check(fields == seps + 1 && ex.GetField(delim, fields).IsEmpty());
    CString joined;
    for (int i = 0; i < fields && i < 64; ++i)
        joined += (i ? CString(delim) : CString()) + ex.GetField(sep, i);
    if (fields <= 64) check(joined == ex);
    if (!pattern.IsEmpty()) {
        size_t expected = text.rfind(pattern.GetString(), a < 0 ? std::string::npos : static_cast<size_t>(a));
        check(ex.ReverseFind(pattern.GetString(), a) == (expected == std::string::npos ? -1 : int(expected)));
        CStringEx edited(ex);
        check(edited.FindReplace(pattern.GetString(), "#", 1) == x.Count(pattern));
        edited = ex;
        int lowered = edited.FindReplaceNoCase(pattern.GetString(), "", 1);
        check(lowered >= 0 && edited.GetLength() == ex.GetLength() - lowered * pattern.GetLength());
    }
    ex.Insert(a, "ins").Delete(b, a).Replace(a, b, "r");

    const char delimiters[] = {sep, '\r', '\n', ' ', '\0'};
    CStringToken tokens(text.c_str(), delimiters);
    size_t total = 0;
    for (auto it = tokens.Begin(); it != tokens.End(); ++it) {
        check(!it->empty() && it->find_first_of(delimiters, 0, 4) == std::string::npos);
        total += it->size();
    }
    size_t kept = 0;
    for (char c : text) kept += std::strchr(delimiters, c) == nullptr ? 1 : 0;
    check(total == kept);
    CStringToken cursor(tokens);
    for (int i = 0; i <= tokens.Size(); ++i) ++cursor;
    check(static_cast<const std::string*>(cursor) == nullptr);
    tokens.Elements(static_cast<unsigned>(a), " ");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    // The search text: a slice of the input, so that it sometimes occurs in it.
    size_t from = size ? data[0] % (size + 1) : 0;
    size_t length = size > 1 ? data[1] % 24 : 0;
    std::string needle = bytes.substr(std::min(from, size), length);
    const bool matchCase = size > 2 && (data[2] & 1);
    CString needleText(needle.c_str());

    header(bytes, needleText, matchCase);
    flatRecord(bytes, needleText);
    elements(bytes, data, size);
    return 0;
}
