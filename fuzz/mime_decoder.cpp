// Arbitrary bytes as a cached message handed to the MIME decoder: scanned, then rendered as plain text and
// as HTML, with attachments written to a private temporary directory and removed after each input. Short
// inputs are also rendered by the step-by-step algorithm, which must give the same texts. The same bytes
// also drive the renderings' two text steps directly (a text, then contents to replace and texts to
// remove), against XString's Replace and RemoveAll. A crash, a sanitizer report, an exception, a
// difference or a file written outside the directory is a finding.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "messages/CMimeDecoder.h"
#include "messages/internal/PartSubstitution.h"
#include "messages/internal/RemovalPasses.h"
#include "platform/MessageBox.h"
#include "platform/Registry.h"
#include "tests/messages/MimeLiteral.h"
#include "util/CFileManager.h"

namespace {

// Inputs up to this size also go through the step-by-step algorithm, which is quadratic.
constexpr std::size_t kCompareUpTo = 2048;

std::filesystem::path g_root, g_temp;

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::filesystem::path base = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    std::string pattern = (base / "tavik-fuzz-mime-XXXXXX").string();
    if (!mkdtemp(pattern.data())) std::abort();
    g_root = pattern;
    g_temp = g_root / "tmp";
    std::filesystem::create_directory(g_temp);
    setenv("TMPDIR", g_temp.c_str(), 1);
    RegSetStorePath((g_root / "registry.db").c_str());
    AfxSetMessageBoxSink([](const char*, UINT) { return 1; });
    std::atexit([] {
        RegCloseStore();
        std::error_code ec;
        std::filesystem::remove_all(g_root, ec);
    });
    return 0;
}

// A text, then replacements: contents cut from the text ahead of the last one (their own places, as a
// message's parts lie) or from anywhere in the input, each checked with its first occurrence replaced;
// then removals of slices, each repeated until none is left.
void textSteps(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const std::string text = in.ConsumeRandomLengthString(2048);
    XString literal{CString(text)};
    tavik::lib::WorkBudget budget(std::uint64_t(1) << 40);
    tavik::lib::PartSubstitution fast(text, text.size(), budget);
    std::size_t pos = 0;
    for (int n = in.ConsumeIntegralInRange(0, 8); n > 0; --n) {
        std::string content;
        if (in.ConsumeBool() && pos <= text.size()) {
            pos += in.ConsumeIntegralInRange<std::size_t>(0, 16);
            content = text.substr(std::min(pos, text.size()), in.ConsumeIntegralInRange<std::size_t>(0, 300));
            pos += content.size();
        } else {
            content = in.ConsumeRandomLengthString(80);
        }
        const std::string with = in.ConsumeBool() ? content : in.ConsumeRandomLengthString(80);
        literal = literal.Replace(XString(CString(with)), XString(CString(content)));
        check(fast.Replace(content, with));
    }
    std::string rendered = fast.Take();
    check(rendered == literal.str());
    std::vector<std::string> removals;
    for (int n = in.ConsumeIntegralInRange(0, 6); n > 0; --n)
        removals.push_back(in.ConsumeRandomLengthString(12));
    std::vector<std::string_view> views(removals.begin(), removals.end());
    for (const std::string& r : removals) literal = literal.RemoveAll(XString(CString(r)));
    check(tavik::lib::RemoveEachInTurn(rendered, views, budget));
    check(rendered == literal.str());
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    textSteps(data, size);
    const XString message{CString(std::string(reinterpret_cast<const char*>(data), size))};
    CFileManager files;
    for (int html = 0; html < 2; ++html) {
        CMimeDecoder decoder;
        decoder.m_pFileManager = &files;
        decoder.m_strMessage = message;
        decoder.ScanMessage();
        check(decoder.m_listParts.size() <= static_cast<size_t>(CMimeDecoder::kMaxParts));
        XString expected;
        const bool compare = size <= kCompareUpTo;
        if (compare) {
            expected =
                html ? tavik::test::LiteralReformatHtml(decoder) : tavik::test::LiteralReformatText(decoder);
        }
        if (html) {
            decoder.ReformatHtml();
        } else {
            decoder.ReformatText();
        }
        if (compare && decoder.GetLimits() == 0) check(decoder.m_strMessage == expected);
    }
    // Every file written is in the directory and listed: removing the listed ones leaves it empty.
    files.RemoveTempFiles();
    check(std::filesystem::is_empty(g_temp));
    return 0;
}
