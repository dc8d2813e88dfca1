// Messages made to hurt: file names that try to leave the temporary directory or overwrite files, and
// structures past the decoder's bounds.
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>

#include "platform/CException.h"
#include "tests/messages/MimeFixture.h"

namespace tavik::test {
namespace {

namespace fs = std::filesystem;
using MimeHostile = MimeTest;

// The boundary is removed wherever it occurs in the rendering: one that occurs nowhere else.
std::string Multipart(const std::vector<std::string>& parts) {
    std::string message = "Content-Type: multipart/mixed; boundary==_sep_=\r\n\r\n";
    for (const std::string& part : parts) message += "--=_sep_=\r\n" + part + "\r\n";
    return message + "--=_sep_=--\r\n";
}

TEST_F(MimeHostile, AttachmentsAreWrittenOnlyAsNewOwnerOnlyListedFilesInTheTemporaryDirectory) {
    WriteFile(m_dir.file("victim.txt"), "precious");
    WriteFile(m_dir.file("target.txt"), "target");
    WriteFile(Tmp() + "taken.pdf", "theirs");
    fs::create_symlink(m_dir.file("target.txt"), Tmp() + "link.pdf");
    const std::vector<std::string> names = {"../victim.txt",
                                            "../../../../../../etc/passwd",
                                            "/etc/hostname",
                                            "..\\..\\win.exe",
                                            "C:\\Windows\\evil.dll",
                                            "a\x01b\x1f.txt",
                                            std::string("a\0b.txt", 7),
                                            ".bashrc",
                                            "..",
                                            ".",
                                            std::string(5000, 'n') + ".pdf",
                                            "taken.pdf",
                                            "link.pdf",
                                            "dir/",
                                            "\\\\server\\share\\x",
                                            "taken.pdf"};
    std::vector<std::string> parts;
    for (const std::string& name : names)
        parts.push_back("Content-Type: application/octet-stream; name=" + name +
                        "\r\nContent-Transfer-Encoding: base64\r\n\r\nQUJD");
    // Beside the temporary directory (the registry store's files aside).
    auto entries = [this] {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_dir.path())) {
            if (entry.path().filename().string().rfind("registry.db", 0) != 0)
                names.insert(entry.path().filename());
        }
        return names;
    };
    const std::set<std::string> before = entries();

    CMimeDecoder decoder;
    Scan(decoder, Multipart(parts));
    ASSERT_EQ(decoder.m_listParts.size(), names.size());
    decoder.ReformatHtml();

    EXPECT_EQ(ReadFile(m_dir.file("victim.txt")), "precious");
    EXPECT_EQ(ReadFile(m_dir.file("target.txt")), "target");
    EXPECT_EQ(ReadFile(Tmp() + "taken.pdf"), "theirs");
    EXPECT_TRUE(fs::is_symlink(Tmp() + "link.pdf"));
    EXPECT_EQ(entries(), before);

    std::set<std::string> listed;
    for (const CString& path : m_files.GetTempFiles()) listed.insert(path.str());
    int attachments = 0;
    for (const std::string& name : TmpFiles()) {
        if (name == "taken.pdf" || name == "link.pdf") continue;
        std::string path = Tmp() + name;
        EXPECT_EQ(name.find_first_of(std::string("\\:\x01\x1f\0", 5)), std::string::npos) << name;
        EXPECT_NE(name[0], '.') << name;
        EXPECT_LE(name.size(), 120u) << name;
        struct stat st {};
        ASSERT_EQ(lstat(path.c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode)) << name;
        EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
        std::string upper = path;
        for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        EXPECT_TRUE(listed.count(upper)) << name;
        if (ReadFile(path) == std::string("ABC\0", 4)) ++attachments;
    }
    EXPECT_EQ(attachments, static_cast<int>(names.size()));
    // The taken names got numbered variants; the links in the boxes lead to the files written.
    EXPECT_EQ(ReadFile(Tmp() + "taken-1.pdf"), std::string("ABC\0", 4));
    EXPECT_EQ(ReadFile(Tmp() + "taken-2.pdf"), std::string("ABC\0", 4));
    EXPECT_EQ(ReadFile(Tmp() + "link-1.pdf"), std::string("ABC\0", 4));
    EXPECT_NE(decoder.m_strMessage.Find(("file://" + Tmp() + "taken-2.pdf\"").c_str()), -1);
    EXPECT_NE(decoder.m_strMessage.Find(("file://" + Tmp() + "___victim.txt\"").c_str()), -1);
}

TEST_F(MimeHostile, AFileTheHostNamesIsWrittenThereAndLeftToIt) {
    CMimeDecoder decoder;
    Scan(decoder, "Content-Type: image/gif; name=x.gif\r\nContent-Transfer-Encoding: base64\r\n\r\nR0lGODlh");
    CMimeHeader& part = decoder.m_listParts.front();
    EXPECT_EQ(part.GetLocalFile(m_dir.file("saved.gif").c_str()), m_dir.file("saved.gif").c_str());
    EXPECT_EQ(ReadFile(m_dir.file("saved.gif")), std::string("GIF89a\0", 7));
    EXPECT_TRUE(m_files.GetTempFiles().empty());
    try {
        part.GetLocalFile(m_dir.file("no/such/dir.gif").c_str());
        ADD_FAILURE() << "no exception";
    } catch (CFileException* e) {
        e->Delete();
    }
}

TEST_F(MimeHostile, DeepNestingStopsAtTheDepthBound) {
    constexpr int kLevels = 1000;
    std::string body, end;
    for (int i = 0; i < kLevels; ++i) {
        body += "--=" + std::to_string(i) +
                "=\r\nContent-Type: multipart/mixed; name=c; boundary==" + std::to_string(i + 1) +
                "=\r\n\r\n";
    }
    for (int i = kLevels; i-- > 0;) end += "\r\n--=" + std::to_string(i) + "=--\r\n";
    body += "--=" + std::to_string(kLevels) + "=\r\nContent-Type: text/plain\r\n\r\ndeep" + end;
    CMimeDecoder decoder;
    Scan(decoder, "Content-Type: multipart/mixed; boundary==0=\r\n\r\n" + body);
    EXPECT_EQ(decoder.GetLimits(), static_cast<DWORD>(CMimeDecoder::LimitDepth));
    EXPECT_TRUE(decoder.m_listParts.empty());
    EXPECT_EQ(decoder.m_listRemove.size(), 2u * CMimeDecoder::kMaxDepth);
    decoder.ReformatText();
}

TEST_F(MimeHostile, PartsPastTheBoundAreLeftAsTheyAre) {
    std::vector<std::string> parts(CMimeDecoder::kMaxParts + 500,
                                   "Content-Type: text/plain; name=p\r\n\r\nx");
    CMimeDecoder decoder;
    Scan(decoder, Multipart(parts));
    EXPECT_EQ(decoder.GetLimits(), static_cast<DWORD>(CMimeDecoder::LimitParts));
    EXPECT_EQ(decoder.m_listParts.size(), static_cast<size_t>(CMimeDecoder::kMaxParts));
    decoder.ReformatText();
    EXPECT_EQ(decoder.GetLimits(), static_cast<DWORD>(CMimeDecoder::LimitParts));
}

// Thousands of short contents that occur nowhere before their own place: each would be searched for in
// all that was rendered before it. The work stops at its bound instead.
TEST_F(MimeHostile, RenderingWorkIsBounded) {
    std::vector<std::string> parts;
    for (int i = 0; i < 4000; ++i) {
        std::string content = {static_cast<char>('a' + i % 26), static_cast<char>('a' + i / 26 % 26),
                               static_cast<char>('a' + i / 676)};
        parts.push_back("Content-Type: text/plain; name=p\r\n\r\n" + content);
    }
    CMimeDecoder decoder;
    Scan(decoder, Multipart(parts));
    ASSERT_EQ(decoder.GetLimits(), 0u);
    decoder.ReformatText();
    EXPECT_EQ(decoder.GetLimits(), static_cast<DWORD>(CMimeDecoder::LimitRender));
    EXPECT_FALSE(decoder.m_strMessage.IsEmpty());
}

}  // namespace
}  // namespace tavik::test
