// The library's load and unload: the generator's seed, the common-controls version rule with its refusal,
// and the extension-module registration that puts the library's resources beside the host's and ends
// at the last detach. The binary starts detached (no test main attaches it).
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "library/ErrorDialogResource.h"
#include "library/LibraryMain.h"
#include "library/Resource.h"
#include "platform/CDynLinkLibrary.h"
#include "platform/CString.h"
#include "platform/Clock.h"
#include "platform/DynamicLibrary.h"
#include "platform/MessageBox.h"

namespace {

constexpr const char* kOutdated =
    "Important files on your system are outdated. Please execute '40Comupd.exe' in the tavikmail directory "
    "to update the system. Thank You";

struct Box {
    std::string text;
    UINT type;
};
std::vector<Box> g_boxes;

int RecordBox(const char* text, UINT type) {
    g_boxes.push_back({text, type});
    return IDOK;
}

bool Registered() {
    return AfxFindStringResource(IDS_REGISTRY_ROOT) != nullptr &&
           AfxFindDialogResource(tavik::IDD_ERROR_DIALOG) != nullptr;
}

class LibraryLoad : public ::testing::Test {
protected:
    void SetUp() override {
        g_boxes.clear();
        AfxSetMessageBoxSink(&RecordBox);
        ASSERT_FALSE(Registered());
    }
    void TearDown() override {
        TavikSetCommonControls({});
        AfxSetMessageBoxSink(nullptr);
    }
};

TEST_F(LibraryLoad, RefusesOnlyWhenBothVersionPartsAreLow) {
    struct Case {
        const char* what;
        TavikCommonControls controls;
        bool loads;
    } cases[] = {
        {"the default stand-in, 5.82", {}, true},
        {"4.70", {true, true, S_OK, 4, 70}, false},
        {"4.71: the minor part is not below 71", {true, true, S_OK, 4, 71}, true},
        {"3.80: a low major part alone passes", {true, true, S_OK, 3, 80}, true},
        {"5.0: a low minor part alone passes", {true, true, S_OK, 5, 0}, true},
        {"no DllGetVersion counts as 4.0", {true, false, S_OK, 6, 0}, false},
        {"no common-controls library", {false, true, S_OK, 4, 0}, true},
        {"a query that fails", {true, true, E_FAIL, 4, 0}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        g_boxes.clear();
        TavikSetCommonControls(c.controls);
        EXPECT_EQ(TavikLibraryAttach(), c.loads ? TRUE : FALSE);
        EXPECT_EQ(Registered(), c.loads);
        if (c.loads) {
            EXPECT_TRUE(g_boxes.empty());
            TavikLibraryDetach();
        } else {
            ASSERT_EQ(g_boxes.size(), 1u);
            EXPECT_EQ(g_boxes[0].text, kOutdated);
            EXPECT_EQ(g_boxes[0].type, UINT(MB_OK));
            // A refused load leaves nothing to detach: a later detach must not end a later registration.
            TavikLibraryDetach();
        }
        ASSERT_FALSE(Registered());
    }
    // After refusals, an up-to-date system loads the library.
    TavikSetCommonControls({});
    ASSERT_TRUE(TavikLibraryAttach());
    EXPECT_TRUE(Registered());
    TavikLibraryDetach();
}

TEST_F(LibraryLoad, AttachSeedsTheGeneratorFromTheTickCount) {
    ScopedClockPin clock(123456);
    ASSERT_TRUE(TavikLibraryAttach());
    const int first = rand(), second = rand();
    TavikLibraryDetach();
    srand(123456);
    EXPECT_EQ(rand(), first);
    EXPECT_EQ(rand(), second);
}

TEST_F(LibraryLoad, TheLastDetachEndsTheRegistrationAndLeavesTheHostsResources) {
    static const AFX_STRING_RESOURCE host[] = {{60001, "the host's own text"}};
    AfxRegisterStringTable(host, 1);

    ASSERT_TRUE(TavikLibraryAttach());
    ASSERT_TRUE(TavikLibraryAttach());  // a second user of the same library
    CString text;
    EXPECT_TRUE(text.LoadString(IDS_REGISTRY_ROOT));
    EXPECT_STREQ(text.GetString(), "Software\\Brannick\\Tavik Mail");
    const AFX_DIALOG_RESOURCE* dialog = AfxFindDialogResource(tavik::IDD_ERROR_DIALOG);
    ASSERT_NE(dialog, nullptr);
    EXPECT_STREQ(dialog->caption, "TavikMail Error Message Dialog");
    EXPECT_STREQ(AfxFindStringResource(60001), "the host's own text");

    TavikLibraryDetach();
    EXPECT_TRUE(Registered()) << "one attach is still open";
    TavikLibraryDetach();
    EXPECT_FALSE(text.LoadString(IDS_REGISTRY_ROOT));
    EXPECT_EQ(AfxFindDialogResource(tavik::IDD_ERROR_DIALOG), nullptr);
    EXPECT_STREQ(AfxFindStringResource(60001), "the host's own text");
    TavikLibraryDetach();  // one too many: harmless

    ASSERT_TRUE(TavikLibraryAttach());  // loaded again
    EXPECT_TRUE(Registered());
    TavikLibraryDetach();
    AfxUnregisterStringTable(host);
}

}  // namespace
