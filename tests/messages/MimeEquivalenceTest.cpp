// The decoder's linear renderings against the step-by-step algorithm (MimeLiteral), on generated
// messages, damaged ones, and on random input to each of the fast steps.
#include <cstdlib>
#include <string>
#include <vector>

#include "messages/internal/PartSubstitution.h"
#include "messages/internal/RemovalPasses.h"
#include "tests/messages/MimeFixture.h"
#include "tests/messages/MimeGenerator.h"
#include "tests/messages/MimeLiteral.h"

namespace tavik::test {
namespace {

// More cases with TAVIK_MIME_CASES (a multiple of the default count).
int Cases(int base) {
    const char* scale = std::getenv("TAVIK_MIME_CASES");
    return scale ? base * std::max(1, std::atoi(scale)) : base;
}

class Decoder : public CMimeDecoder {
public:
    using CMimeDecoder::StripHtml;
};

XString Text(const std::string& s) { return XString(CString(s)); }

TEST(MimeSteps, EscapePassesMatchTheLiteralPasses) {
    MimeGenerator gen(1);
    std::vector<std::string> inputs = {"=3D41",     "=3D3D",  "==41A",     "=00",      "=4=001",
                                       "===414141", "=3=44",  "=3D=34=31", "=\r\n=41", "= \r\n",
                                       "=3D\r\n41", "=3D00A", "=33D41"};
    for (int i = Cases(4000); i > 0; --i) inputs.push_back(gen.Noise(40, "==0134ADF9a\r\n "));
    for (const std::string& input : inputs) {
        CMimeHeader part;
        XString header("Content-Transfer-Encoding: quoted-printable"), content = Text(input);
        part.Initialize(header, content);
        part.GetDecodedContent();
        const std::vector<BYTE>& bytes = part.GetDecodedBytes().vector();
        ASSERT_FALSE(input.empty() ? !bytes.empty() : bytes.empty() || bytes.back() != 0) << input;
        const std::string decoded = input.empty() ? "" : std::string(bytes.begin(), bytes.end() - 1);
        ASSERT_EQ(decoded, LiteralQuotedPrintable(content).str()) << input;
    }
}

TEST(MimeSteps, TagRemovalMatchesTheLiteralLoop) {
    MimeGenerator gen(2);
    Decoder decoder;
    for (int i = Cases(4000); i > 0; --i) {
        XString fast = Text(gen.Noise(40, "<<>>\r\nab"));
        XString literal = fast;
        decoder.StripHtml(fast);
        LiteralStripHtml(literal);
        ASSERT_EQ(fast, literal);
    }
}

TEST(MimeSteps, RemovalsInTurnMatchRepeatedRemoveAll) {
    MimeGenerator gen(3);
    for (int i = Cases(3000); i > 0; --i) {
        const std::string text = gen.Noise(60, "ab-\r\n");
        std::vector<std::string> patterns;
        for (int n = gen.Pick(6); n > 0; --n) {
            if (gen.Pick(2) && !text.empty()) {
                std::size_t at = static_cast<std::size_t>(gen.Pick(static_cast<int>(text.size())));
                patterns.push_back(text.substr(at, 1 + gen.Pick(5)));
            } else {
                patterns.push_back(gen.Noise(4, "ab-\r\n"));
            }
        }
        patterns.push_back("--\r\n");
        XString literal = Text(text);
        std::vector<std::string_view> views;
        for (const std::string& p : patterns) {
            literal = literal.RemoveAll(Text(p));
            views.push_back(p);
        }
        std::string fast = text;
        tavik::lib::WorkBudget budget(1u << 30);
        ASSERT_TRUE(tavik::lib::RemoveEachInTurn(fast, views, budget));
        ASSERT_EQ(fast, literal.str()) << text;
    }
}

// Contents taken from the text in order (their own places), mixed with short and repeated ones that
// occur earlier, inside what was already replaced, across its end, or nowhere.
TEST(MimeSteps, FirstOccurrenceReplacementMatchesTheLiteralReplace) {
    MimeGenerator gen(4);
    const std::string alphabet("ab-\r\n\0", 6);
    for (int i = Cases(3000); i > 0; --i) {
        const std::string text = gen.Noise(80, alphabet);
        XString literal = Text(text);
        tavik::lib::WorkBudget budget(1u << 30);
        tavik::lib::PartSubstitution fast(text, text.size(), budget);
        std::size_t pos = 0;
        std::vector<std::string> earlier;
        for (int n = gen.Pick(7); n > 0; --n) {
            std::string content;
            switch (gen.Pick(4)) {
                case 0:
                    content = gen.Noise(3, alphabet);
                    break;
                case 1:
                    content = earlier.empty()
                                  ? ""
                                  : earlier[static_cast<std::size_t>(gen.Pick(int(earlier.size())))];
                    break;
                default:
                    pos = std::min(text.size(), pos + static_cast<std::size_t>(gen.Pick(8)));
                    content = text.substr(pos, static_cast<std::size_t>(gen.Pick(20)));
                    pos += content.size();
            }
            const std::string with = gen.Pick(3) ? gen.Noise(6, alphabet) : content;
            earlier.push_back(with);
            literal = literal.Replace(Text(with), Text(content));
            ASSERT_TRUE(fast.Replace(content, with));
        }
        ASSERT_EQ(fast.Take(), literal.str()) << text;
    }
}

// The gram filter's long keys: contents of 16 bytes or more that also occur in what was replaced.
TEST(MimeSteps, LongContentsFoundInsideTheReplacedTextAsTheLiteralReplaceFindsThem) {
    MimeGenerator gen(5);
    for (int i = Cases(1000); i > 0; --i) {
        // Long enough for the gram filter to be asked, at any alignment with its samples.
        const std::string piece = gen.Noise(30, "abc") + "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKL";
        std::string text = gen.Noise(10, "ab") + piece + gen.Noise(40, "abc") + piece + gen.Noise(10, "ab");
        XString literal = Text(text);
        tavik::lib::WorkBudget budget(1u << 30);
        tavik::lib::PartSubstitution fast(text, text.size(), budget);
        const std::size_t second = text.rfind(piece);
        std::vector<std::pair<std::string, std::string>> steps = {
            {text.substr(0, 5), gen.Noise(40, "ab") + piece + "x"},
            {piece, "y"},
            {text.substr(second), "z"},
            {piece + "x", ""}};
        for (const auto& [content, with] : steps) {
            literal = literal.Replace(Text(with), Text(content));
            ASSERT_TRUE(fast.Replace(content, with));
        }
        ASSERT_EQ(fast.Take(), literal.str());
    }
    // A replacement inside what was replaced before moves the text after it, and may join a long content
    // that is then found there.
    for (int i = Cases(300); i > 0; --i) {
        const std::string piece = gen.Noise(30, "abc") + "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKL";
        const std::string text = "zz" + gen.Noise(40, "ab") + piece;
        XString literal = Text(text);
        tavik::lib::WorkBudget budget(1u << 30);
        tavik::lib::PartSubstitution fast(text, text.size(), budget);
        const std::string mark = "#" + std::string(static_cast<std::size_t>(1 + gen.Pick(40)), '#');
        const std::size_t cut = static_cast<std::size_t>(gen.Pick(static_cast<int>(piece.size())));
        for (const auto& [content, with] : std::vector<std::pair<std::string, std::string>>{
                 {"zz",
                  gen.Noise(40, "ab") + piece.substr(0, cut) + mark + piece.substr(cut) + gen.Noise(9, "ab")},
                 {std::string(60, 'Q'), "nowhere"},
                 {mark, gen.Pick(2) ? "" : "!"},
                 {piece, "y"}}) {
            literal = literal.Replace(Text(with), Text(content));
            ASSERT_TRUE(fast.Replace(content, with));
        }
        ASSERT_EQ(fast.Take(), literal.str());
    }
    // A replacement that runs from what was replaced into the untouched text cuts the former short; a
    // long content it brings is then found there.
    for (int i = Cases(300); i > 0; --i) {
        const std::string piece = gen.Noise(30, "abc") + "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKL";
        const std::string rest = gen.Noise(30, "ab") + "0123456789" + gen.Noise(30, "ab");
        const std::string text = "zz" + rest;
        XString literal = Text(text);
        tavik::lib::WorkBudget budget(1u << 30);
        tavik::lib::PartSubstitution fast(text, text.size(), budget);
        const std::string mine = gen.Noise(40, "xy") + std::string(20, 'x') + "<end of mine>";
        for (const auto& [content, with] : std::vector<std::pair<std::string, std::string>>{
                 {"zz", mine},
                 {std::string(60, 'Q'), "nowhere"},
                 {mine.substr(static_cast<std::size_t>(gen.Pick(20))) + rest.substr(0, 5),
                  piece + gen.Noise(40, "ab")},
                 {piece, "y"}}) {
            literal = literal.Replace(Text(with), Text(content));
            ASSERT_TRUE(fast.Replace(content, with));
        }
        ASSERT_EQ(fast.Take(), literal.str());
    }
    // Long contents whose first occurrence runs from a replacement into the untouched text, or whose head
    // occurs there without the rest.
    for (int i = Cases(1000); i > 0; --i) {
        const std::string piece =
            gen.Noise(20, "ab") + "0123456789abcdefghijklmnopqrstuvwxyz" + gen.Noise(20, "ab");
        const std::size_t cut = static_cast<std::size_t>(gen.Pick(static_cast<int>(piece.size())));
        const std::string text = "zz" + piece.substr(cut) + gen.Noise(20, "ab") + piece + gen.Noise(5, "ab");
        XString literal = Text(text);
        tavik::lib::WorkBudget budget(1u << 30);
        tavik::lib::PartSubstitution fast(text, text.size(), budget);
        std::string damaged = piece.substr(0, cut);
        if (gen.Pick(2)) damaged = gen.Pick(2) ? damaged + "#" : piece.substr(0, 40) + "#" + damaged;
        for (const auto& [content, with] :
             std::vector<std::pair<std::string, std::string>>{{"zz", damaged}, {piece, "y"}, {piece, "x"}}) {
            literal = literal.Replace(Text(with), Text(content));
            ASSERT_TRUE(fast.Replace(content, with));
        }
        ASSERT_EQ(fast.Take(), literal.str()) << text;
    }
}

class MimeEquivalence : public MimeTest {
protected:
    // Scan, both renderings, and the removal list, against the literal algorithm.
    void Compare(const std::string& message) {
        SCOPED_TRACE(::testing::PrintToString(message));
        CMimeDecoder text;
        Scan(text, message);
        const LiteralScan scan = LiteralScanMessage(Text(message));
        ASSERT_EQ(text.m_listParts.size(), scan.parts.size());
        auto it = text.m_listParts.begin();
        for (const LiteralPart& part : scan.parts) {
            EXPECT_EQ(it->GetHeaderText(), part.header);
            EXPECT_EQ(it->GetContent(), part.content);
            EXPECT_EQ(it->GetContentType(), part.type);
            EXPECT_EQ(it->GetCharset(), part.charset);
            EXPECT_EQ(it->GetTransferEncoding(), part.encoding);
            if (!part.name.IsEmpty()) {
                EXPECT_EQ(it->GetFileName(), part.name);
            }
            ++it;
        }
        EXPECT_EQ(text.m_listRemove, scan.removals);

        const XString expectedText = LiteralReformatText(text);
        text.ReformatText();
        EXPECT_EQ(text.m_strMessage, expectedText);
        EXPECT_EQ(text.GetLimits(), 0u);

        CMimeDecoder html;
        Scan(html, message);
        const XString expectedHtml = LiteralReformatHtml(html);
        html.ReformatHtml();
        EXPECT_EQ(html.m_strMessage, expectedHtml);
        m_files.RemoveTempFiles();
    }
};

TEST_F(MimeEquivalence, GeneratedMessages) {
    MimeGenerator gen(6);
    for (int i = Cases(150); i > 0 && !HasFailure(); --i) Compare(gen.Message());
}

TEST_F(MimeEquivalence, DamagedMessages) {
    MimeGenerator gen(7);
    for (int i = Cases(150); i > 0 && !HasFailure(); --i) Compare(gen.Damage(gen.Message()));
}

}  // namespace
}  // namespace tavik::test
