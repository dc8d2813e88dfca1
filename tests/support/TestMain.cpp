// Test main for binaries that exercise the library: attach it first, as a host's load would.
#include <gtest/gtest.h>

#include "library/LibraryMain.h"

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    TavikLibraryAttach();
    int rc = RUN_ALL_TESTS();
    TavikLibraryDetach();
    return rc;
}
