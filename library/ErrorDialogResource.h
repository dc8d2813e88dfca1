// Dialog resource 130: the error-message dialog's template, kept as data since there is no resource
// compiler. Positions and sizes are dialog units.
#pragma once

namespace tavik {

struct DialogControlResource {
    int id;                 // -1 for a static text without an identifier
    const char* className;  // "Button", "SysListView32", "Static"
    const char* text;
    int x, y, cx, cy;
    bool defaultButton;
};

struct DialogResource {
    int id;
    const char* caption;
    int cx, cy;
    const char* fontName;
    int fontPoints;
    const DialogControlResource* controls;
    int controlCount;
};

constexpr int IDD_ERROR_DIALOG = 130;
constexpr int IDC_ERROR_LIST = 1000;

inline constexpr DialogControlResource kErrorDialogControls[] = {
    {1, "Button", "Close", 276, 111, 50, 14, true},
    {IDC_ERROR_LIST, "SysListView32", "", 6, 18, 321, 87, false},
    {-1, "Static", "Error Message Description", 6, 6, 84, 8, false},
};

inline constexpr DialogResource kErrorDialogResource = {
    IDD_ERROR_DIALOG, "TavikMail Error Message Dialog", 334, 131, "MS Sans Serif", 8, kErrorDialogControls, 3,
};

}  // namespace tavik
