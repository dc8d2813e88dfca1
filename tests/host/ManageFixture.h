// Whole `tavik` command lines on a private registry store and data directory, for the commands that
// manage a user's data.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/Dispatch.h"
#include "platform/FileSystem.h"
#include "platform/Registry.h"
#include "tests/support/TempDir.h"

namespace tavik::test {

struct Outcome {
    int rc;
    std::string out, err;
};

inline std::string DrainFile(FILE* f) {
    std::string text;
    std::rewind(f);
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    std::fclose(f);
    return text;
}

inline Outcome RunTavikLine(const std::vector<std::string>& args) {
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    int rc = tavik::host::RunTavik(args, out, err);
    return {rc, DrainFile(out), DrainFile(err)};
}

class ManageTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TAVIK_REGISTRY", m_dir.file("registry.db").c_str(), 1);
        setenv("TAVIK_DATA", m_data.path().c_str(), 1);
        unsetenv("TAVIK_PASSWORD");
        unsetenv("TAVIK_ACCOUNT_PASSWORD");
        unsetenv("TAVIK_SMTP_PASSWORD");
        RegSetStorePath(nullptr);
    }
    void TearDown() override {
        RegCloseStore();
        unsetenv("TAVIK_REGISTRY");
        unsetenv("TAVIK_DATA");
        unsetenv("TAVIK_PASSWORD");
        unsetenv("TAVIK_ACCOUNT_PASSWORD");
        unsetenv("TAVIK_SMTP_PASSWORD");
        RegSetStorePath(nullptr);
        TavikSetApplicationDirectory(nullptr);
    }
    // Runs and expects success.
    std::string Ok(const std::vector<std::string>& args) {
        Outcome o = RunTavikLine(args);
        EXPECT_EQ(o.rc, 0) << args[0] << " " << (args.size() > 1 ? args[1] : "") << ": " << o.err;
        return o.out;
    }
    // Runs and expects a failure whose message holds text.
    void Fails(const std::vector<std::string>& args, const std::string& text, int rc = 1) {
        Outcome o = RunTavikLine(args);
        EXPECT_EQ(o.rc, rc) << o.out;
        EXPECT_NE(o.err.find(text), std::string::npos) << o.err;
    }
    TempDir m_dir;
    TempDir m_data;
};

}  // namespace tavik::test
