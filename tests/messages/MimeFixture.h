// A private temporary directory (as TMPDIR), registry store and media-type list for decoder tests, and
// the message boxes shown, collected.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "messages/CMimeDecoder.h"
#include "platform/MessageBox.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"
#include "util/CFileManager.h"

namespace tavik::test {

class MimeTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(m_dir.path() / "tmp");
        setenv("TMPDIR", Tmp().c_str(), 1);
        RegSetStorePath(m_dir.file("registry.db").c_str());
        WriteFile(m_dir.file("mime.types"),
                  "image/gif gif\nimage/png png\ntext/plain txt\ntext/html html\napplication/pdf pdf\n");
        RegSetMimeTypesPath(m_dir.file("mime.types").c_str());
        Boxes().clear();
        AfxSetMessageBoxSink([](const char* text, UINT) {
            Boxes().push_back(text);
            return 1;
        });
    }
    void TearDown() override {
        m_files.RemoveTempFiles();
        AfxSetMessageBoxSink(nullptr);
        RegCloseStore();
        RegSetStorePath(nullptr);
        RegSetMimeTypesPath(nullptr);
        unsetenv("TMPDIR");
    }
    // The temporary directory, with its separator.
    std::string Tmp() const { return (m_dir.path() / "tmp").string() + "/"; }
    static std::vector<std::string>& Boxes() {
        static std::vector<std::string> boxes;
        return boxes;
    }
    // A decoder on the text, scanned, with the fixture's file manager.
    void Scan(CMimeDecoder& decoder, const std::string& message) {
        decoder.m_pFileManager = &m_files;
        decoder.m_strMessage = XString(CString(message));
        decoder.ScanMessage();
    }
    std::vector<std::string> TmpFiles() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.path() / "tmp"))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    TempDir m_dir;
    CFileManager m_files;
};

}  // namespace tavik::test
