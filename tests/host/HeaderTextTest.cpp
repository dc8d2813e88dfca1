// Header fields as rules and answers read them: unfolding, encoded words, address lists, parameters, case.
#include "host/HeaderText.h"

#include <gtest/gtest.h>

#include <string>

namespace tavik::host {
namespace {

TEST(HeaderText, FieldsAreUnfoldedAndStopAtTheBlankLine) {
    const auto fields = ParseHeaderFields(
        "Received: from a\r\n\tby b\r\nSubject:  Hello \r\n  world\r\nnot a field\r\n"
        "X-Empty:\nFrom: ann@example.com\n\nBody: no\r\n");
    ASSERT_EQ(fields.size(), 4u);
    EXPECT_EQ(fields[0].value, "from a\tby b");
    EXPECT_EQ(fields[1].value, "Hello   world");
    EXPECT_EQ(fields[2].name, "X-Empty");
    EXPECT_EQ(fields[2].value, "");
    ASSERT_NE(FindField(fields, "FROM"), nullptr);
    EXPECT_EQ(FindField(fields, "from")->value, "ann@example.com");
    EXPECT_EQ(FindField(fields, "Body"), nullptr);
    // A continuation before any field, or after a line without a colon, belongs to nothing.
    EXPECT_TRUE(ParseHeaderFields("  orphan\r\n").empty());
    EXPECT_EQ(ParseHeaderFields("junk\r\n  more\r\nA: 1").at(0).value, "1");
}

TEST(HeaderText, EncodedWordsAreDecoded) {
    // Q and B, upper and lower case letters, ISO-8859-1 and UTF-8.
    EXPECT_EQ(DecodeHeaderValue("=?ISO-8859-1?Q?Gr=FC=DFe_aus_K=f6ln?="), "Grüße aus Köln");
    EXPECT_EQ(DecodeHeaderValue("=?utf-8?b?w6lsw6h2ZQ==?="), "élève");
    // Blanks between encoded words go; text around them stays with its blanks.
    EXPECT_EQ(DecodeHeaderValue("Re: =?utf-8?q?caf=C3=A9?= \r\n =?utf-8?q?_cr=C3=A8me?= now"),
              "Re: café crème now");
    // A character split between two words of one charset comes out whole.
    EXPECT_EQ(DecodeHeaderValue("=?UTF-8?B?4oK=?= =?UTF-8?B?rA==?="), "€");
    // RFC 2231 language in the charset.
    EXPECT_EQ(DecodeHeaderValue("=?US-ASCII*EN?Q?Keith_Moore?="), "Keith Moore");
    // What only looks like an encoded word stays as written.
    for (const char* kept :
         {"=?utf-8?x?abc?=", "=?utf-8?q?a b?=", "=?utf-8?q?open", "=??q?x?=", "a =? b ?= c"})
        EXPECT_EQ(DecodeHeaderValue(kept), kept) << kept;
    // Raw 8-bit text: UTF-8 kept, anything else read as Windows-1252; unknown charsets likewise.
    EXPECT_EQ(DecodeHeaderValue("caf\xE9 \xE2\x82\xAC"), "café €");
    EXPECT_EQ(DecodeHeaderValue("=?x-unknown?q?caf=E9?="), "café");
    EXPECT_EQ(CharsetToUtf8("\x80", "windows-1252"), "€");
    EXPECT_EQ(CharsetToUtf8("a\xFF", "utf-8"), "a\xEF\xBF\xBD");
}

TEST(HeaderText, HostileValuesDecodeInLinearTime) {
    // Each of these would take minutes if every "=?" looked to the end of the value for its "?=".
    std::string starts;
    for (int i = 0; i < 200000; ++i) starts += "=?";
    EXPECT_EQ(DecodeHeaderValue(starts), starts);
    std::string open = "=?utf-8?q?";
    for (int i = 0; i < 100000; ++i) open += "=?u?q?x";
    EXPECT_EQ(DecodeHeaderValue(open).size(), open.size());
    std::string words;
    for (int i = 0; i < 100000; ++i) words += "=?utf-8?q?a?= ";
    EXPECT_EQ(DecodeHeaderValue(words), std::string(100000, 'a') + " ");
    EXPECT_EQ(ParseAddressList(std::string(300000, ',')).size(), 0u);
    EXPECT_EQ(HeaderParameter("a" + std::string(100000, ';') + "name=x", "name"), "x");
}

TEST(HeaderText, EncodingRoundTripsInWordsOfAtMost75Characters) {
    EXPECT_EQ(EncodeHeaderValue("Plain subject"), "Plain subject");
    EXPECT_EQ(EncodeHeaderValue("looks =?like?= a word"), "=?UTF-8?B?bG9va3MgPT9saWtlPz0gYSB3b3Jk?=");
    std::string long_text;
    for (int i = 0; i < 60; ++i) long_text += "é€x";
    const std::string encoded = EncodeHeaderValue(long_text);
    size_t start = 0;
    for (size_t end; (end = encoded.find(' ', start)) != std::string::npos || start < encoded.size();) {
        if (end == std::string::npos) end = encoded.size();
        EXPECT_LE(end - start, 75u);
        start = end + 1;
    }
    // Each word holds whole characters, so decoding word by word and as a whole agree.
    EXPECT_EQ(DecodeHeaderValue(encoded), long_text);
}

TEST(HeaderText, AddressListsSplitOutsideQuotesCommentsAndBrackets) {
    const auto boxes = ParseAddressList(
        "\"Lee, Ann\" <ann@example.com>, bob@example.org (Bob, the builder), "
        "=?utf-8?q?J=C3=BCrgen?= <j@example.de>, team: c@x.org, d@y.org;, <odd,one@z.org>");
    ASSERT_EQ(boxes.size(), 6u);
    EXPECT_EQ(boxes[0].address, "ann@example.com");
    EXPECT_EQ(boxes[0].display, "\"Lee, Ann\" <ann@example.com>");
    EXPECT_EQ(boxes[1].address, "bob@example.org");
    EXPECT_EQ(boxes[2].display, "Jürgen <j@example.de>");
    EXPECT_EQ(boxes[3].address, "c@x.org");
    EXPECT_EQ(boxes[4].address, "d@y.org");
    EXPECT_EQ(boxes[5].address, "odd,one@z.org");
    EXPECT_TRUE(ParseAddressList("undisclosed-recipients:;").empty());
    EXPECT_EQ(FirstAddress("<>"), "");
    EXPECT_EQ(FirstAddress(" MAILER-DAEMON@host (Mail Delivery) "), "MAILER-DAEMON@host");
}

TEST(HeaderText, ParametersIncludingRfc2231) {
    EXPECT_EQ(HeaderParameter("attachment; filename=\"a \\\"b\\\".pdf\"; size=3", "filename"), "a \"b\".pdf");
    EXPECT_EQ(HeaderParameter("application/pdf; NAME=report.pdf", "name"), "report.pdf");
    EXPECT_EQ(HeaderParameter("attachment; filename*=UTF-8''%E2%82%AC%20rates.xls", "filename"),
              "€ rates.xls");
    EXPECT_EQ(
        HeaderParameter("attachment; filename*0*=iso-8859-1'de'K%F6ln; filename*1=\".txt\"", "filename"),
        "Köln.txt");
    // The extended form wins over the plain one; encoded words in a plain value are decoded.
    EXPECT_EQ(HeaderParameter("a; filename=old.txt; filename*=utf-8''new.txt", "filename"), "new.txt");
    EXPECT_EQ(HeaderParameter("a; name=\"=?utf-8?q?r=C3=A9sum=C3=A9.doc?=\"", "name"), "résumé.doc");
    EXPECT_EQ(HeaderParameter("a; filenames=x; xfilename=y", "filename"), "");
    EXPECT_EQ(HeaderParameter("text/plain", "charset"), "");
}

TEST(HeaderText, CaseFoldingCoversLatinGreekAndCyrillic) {
    EXPECT_EQ(FoldedText("ÀÉÎÕÜ ŸŁŽ ΣΩ ДЖЁ Ĳ"), FoldedText("àéîõü ÿłž σω джё ĳ"));
    EXPECT_EQ(FoldCase(U'×'), U'×');
    for (char32_t c = 0; c < 0x500; ++c) {
        const char32_t lower = FoldCase(c);
        if (lower != c) {
            EXPECT_EQ(UpperCase(lower), c) << std::hex << static_cast<unsigned>(c);
        }
    }
    EXPECT_EQ(Utf8ToCodePoints("a\xC3"), U"a\uFFFD");
    EXPECT_EQ(CodePointsToUtf8(U"a€"), "a€");
}

}  // namespace
}  // namespace tavik::host
