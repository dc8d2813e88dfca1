// Dialog resource 130: the error-message dialog's template. It joins the host's resources when the
// library is attached.
#pragma once

#include "platform/CDynLinkLibrary.h"
#include "util/CErrorWindow.h"

namespace tavik {

inline constexpr AFX_DIALOG_CONTROL_RESOURCE kErrorDialogControls[] = {
    {1, "Button", "Close", 276, 111, 50, 14, true},
    {IDC_ERROR_LIST, "SysListView32", "", 6, 18, 321, 87, false},
    {-1, "Static", "Error Message Description", 6, 6, 84, 8, false},
};

inline constexpr AFX_DIALOG_RESOURCE kErrorDialogResource = {
    IDD_ERROR_DIALOG, "TavikMail Error Message Dialog", 334, 131, "MS Sans Serif", 8, kErrorDialogControls, 3,
};

}  // namespace tavik
