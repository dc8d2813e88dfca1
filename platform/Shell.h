// The shell's file information, as far as the library asks for it: a file's type name.
#pragma once

#include "platform/WinTypes.h"

using HICON = void*;

struct SHFILEINFO {
    HICON hIcon;
    int iIcon;
    DWORD dwAttributes;
    char szDisplayName[MAX_PATH];
    char szTypeName[80];
};

constexpr UINT SHGFI_ICON = 0x000000100;
constexpr UINT SHGFI_DISPLAYNAME = 0x000000200;
constexpr UINT SHGFI_TYPENAME = 0x000000400;
constexpr UINT SHGFI_ATTRIBUTES = 0x000000800;
constexpr UINT SHGFI_USEFILEATTRIBUTES = 0x000000010;

// With SHGFI_TYPENAME the type name comes from the system's MIME database (shared-mime-info): the
// English description of the type its name patterns give (for example "plain text document" for a
// .txt file, "folder" for a directory). A name without a known type gets Windows' "<EXT> File" (the
// extension in capitals) or "File". Unless SHGFI_USEFILEATTRIBUTES is given, the file must exist;
// returns 0 when it does not, non-zero otherwise. SHGFI_DISPLAYNAME gives the last path component.
// Other requests (icons, attributes) are not offered and leave their members zero.
DWORD_PTR SHGetFileInfo(const char* path, DWORD fileAttributes, SHFILEINFO* info, UINT size, UINT flags);

// The MIME database read is /usr/share/mime unless a test or host points elsewhere (the folder
// holding "globs2" and the type folders). Takes effect for lookups made afterwards.
void TavikSetMimeDatabase(const char* directory);
