// HKEY_CLASSES_ROOT\MIME\Database\Content Type answered from the system's media type list.
#include <fstream>

#include "tests/platform/registry/RegistryFixture.h"

namespace tavik::test {
namespace {

constexpr const char* kContentType = "MIME\\Database\\Content Type";

class RegistryMime : public RegistryTest {
protected:
    void SetUp() override {
        RegistryTest::SetUp();
        std::string list = m_dir.file("mime.types");
        std::ofstream(list) << "# media types\n"
                               "image/gif\t\t\t\tgif\n"
                               "text/html html htm shtml\n"
                               "application/x-bare\n"
                               "Image/GIF xyz   # listed twice: the first extension stays\n"
                               "not-a-type ext\n"
                               "video/mp4 mp4 # trailing comment\n";
        RegSetMimeTypesPath(list.c_str());
    }
    std::string Extension(const char* type) {
        HKEY key = nullptr;
        std::string path = std::string(kContentType) + "\\" + type;
        if (RegOpenKeyEx(HKEY_CLASSES_ROOT, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS)
            return "<no key>";
        std::string text = GetString(key, "Extension");
        RegCloseKey(key);
        return text;
    }
};

TEST_F(RegistryMime, ContentTypesComeFromTheListWithTheirFirstExtension) {
    EXPECT_EQ(Extension("image/gif"), ".gif");
    EXPECT_EQ(Extension("IMAGE/GIF"), ".gif");
    EXPECT_EQ(Extension("text/html"), ".html");
    EXPECT_EQ(Extension("video/mp4"), ".mp4");
    EXPECT_EQ(Extension("application/x-bare"), "<missing>");
    EXPECT_EQ(Extension("not-a-type"), "<no key>");

    HKEY root = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CLASSES_ROOT, kContentType, 0, KEY_ALL_ACCESS, &root), ERROR_SUCCESS);
    EXPECT_EQ(SubKeys(root),
              (std::vector<std::string>{"application/x-bare", "image/gif", "text/html", "video/mp4"}));
    RegCloseKey(root);
}

TEST_F(RegistryMime, KeysTheProgramWritesTakePrecedenceAndTheListCannotBeDeleted) {
    DWORD disposition = 0;
    HKEY gif = Create((std::string(kContentType) + "\\image/gif").c_str(), &disposition, HKEY_CLASSES_ROOT);
    EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);
    SetString(gif, "Extension", ".giff");
    SetString(gif, "Note", "mine");
    EXPECT_EQ(Extension("image/gif"), ".giff");
    EXPECT_EQ(ValueNames(gif), (std::vector<std::string>{"Extension", "Note"}));
    RegCloseKey(gif);

    // A type the list does not know, as a lookup that creates its key would leave it.
    HKEY mine =
        Create((std::string(kContentType) + "\\application/x-mine").c_str(), &disposition, HKEY_CLASSES_ROOT);
    EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
    RegCloseKey(mine);
    HKEY root = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CLASSES_ROOT, kContentType, 0, KEY_READ, &root), ERROR_SUCCESS);
    EXPECT_EQ(SubKeys(root), (std::vector<std::string>{"application/x-bare", "application/x-mine",
                                                       "image/gif", "text/html", "video/mp4"}));

    EXPECT_EQ(RegDeleteKey(root, "text/html"), ERROR_ACCESS_DENIED);
    // Deleting the program's own key brings the list's answer back.
    EXPECT_EQ(RegDeleteKey(root, "image/gif"), ERROR_SUCCESS);
    EXPECT_EQ(Extension("image/gif"), ".gif");
    RegCloseKey(root);
}

TEST_F(RegistryMime, TheSystemListIsUsedByDefault) {
    HKEY gif = nullptr;
    ASSERT_EQ(RegOpenKeyEx(HKEY_CLASSES_ROOT, "MIME\\Database\\Content Type\\image/gif", 0, KEY_READ, &gif),
              ERROR_SUCCESS);
    RegSetMimeTypesPath(nullptr);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueEx(gif, "Extension", nullptr, nullptr, nullptr, &size), ERROR_INVALID_HANDLE);
    if (!std::ifstream("/etc/mime.types")) GTEST_SKIP() << "no /etc/mime.types (package media-types)";
    EXPECT_EQ(Extension("image/gif"), ".gif");
    EXPECT_EQ(Extension("image/jpeg"), ".jpeg");  // Debian lists "jpeg jpg jpe jfif"
    EXPECT_EQ(Extension("text/plain"), ".txt");
}

}  // namespace
}  // namespace tavik::test
