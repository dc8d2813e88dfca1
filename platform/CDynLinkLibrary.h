// Extension modules: a library that shares the framework with its host registers itself so that its
// resources join the host's, and lookups by number find them until the registration ends. Windows keeps
// a module's resources in its image; here the module hands over tables, and its HMODULE is the address
// of its AFX_MODULE_RESOURCES.
#pragma once

#include <cstddef>

#include "platform/StringResources.h"
#include "platform/WinTypes.h"

// A dialog template, kept as data since there is no resource compiler. Positions and sizes are dialog
// units.
struct AFX_DIALOG_CONTROL_RESOURCE {
    int id;                 // -1 for a static text without an identifier
    const char* className;  // "Button", "SysListView32", "Static"
    const char* text;
    int x, y, cx, cy;
    bool defaultButton;
};

struct AFX_DIALOG_RESOURCE {
    UINT id;
    const char* caption;
    int cx, cy;
    const char* fontName;
    int fontPoints;
    const AFX_DIALOG_CONTROL_RESOURCE* controls;
    size_t controlCount;
};

struct AFX_MODULE_RESOURCES {
    const AFX_STRING_RESOURCE* strings;
    size_t stringCount;
    const AFX_DIALOG_RESOURCE* const* dialogs;
    size_t dialogCount;
};

struct AFX_EXTENSION_MODULE {
    BOOL bInitialized;
    HMODULE hModule;
    HMODULE hResource;
};

// Records the module in state; FALSE for a null module. Calling it again is harmless.
BOOL AfxInitExtensionModule(AFX_EXTENSION_MODULE& state, HMODULE module);
// Ends the registration: deletes every CDynLinkLibrary made for the module, so its resources leave the
// chain. Harmless for a module that was never initialised.
void AfxTermExtensionModule(AFX_EXTENSION_MODULE& state, BOOL all = FALSE);

// One module's place in the process's resource chain, from construction (made with new, as the
// framework expects) until AfxTermExtensionModule deletes it. Later modules are searched first.
class CDynLinkLibrary {
public:
    explicit CDynLinkLibrary(AFX_EXTENSION_MODULE& state, BOOL system = FALSE);
    virtual ~CDynLinkLibrary();
    CDynLinkLibrary(const CDynLinkLibrary&) = delete;
    CDynLinkLibrary& operator=(const CDynLinkLibrary&) = delete;

    HMODULE m_hModule;
    HMODULE m_hResource;
    BOOL m_bSystem;
};

// The dialog template with that number in the chain, null when no registered module has it (as
// CDialog::DoModal then fails).
const AFX_DIALOG_RESOURCE* AfxFindDialogResource(UINT id);
