// The string table behind CString::LoadString. The library registers its table when it is attached;
// several tables may be registered (an extension module's joins its host's).
#pragma once

#include "platform/WinTypes.h"

struct AFX_STRING_RESOURCE {
    UINT id;
    const char* text;
};

// The table must outlive every lookup (normally static data). Registering the same table twice is
// harmless. Later tables are searched first, so a host can override a library text.
void AfxRegisterStringTable(const AFX_STRING_RESOURCE* table, size_t count);
void AfxUnregisterStringTable(const AFX_STRING_RESOURCE* table);
// Null when no registered table has the id.
const char* AfxFindStringResource(UINT id);
