// The framework's message box. There is no screen: the text goes to a sink that a host (or a test)
// installs, and to stderr when there is none.
#pragma once

#include "platform/WindowMessages.h"

constexpr UINT MB_OK = 0x0;
constexpr UINT MB_OKCANCEL = 0x1;
constexpr UINT MB_YESNOCANCEL = 0x3;
constexpr UINT MB_YESNO = 0x4;
constexpr UINT MB_ICONHAND = 0x10;
constexpr UINT MB_ICONSTOP = MB_ICONHAND;
constexpr UINT MB_ICONERROR = MB_ICONHAND;
constexpr UINT MB_ICONQUESTION = 0x20;
constexpr UINT MB_ICONEXCLAMATION = 0x30;
constexpr UINT MB_ICONINFORMATION = 0x40;

// Returns the button pressed (IDOK, IDCANCEL, IDYES, IDNO). Called on the caller's thread.
using AfxMessageBoxSink = int (*)(const char* text, UINT type);
// A null sink restores the default: the text goes to stderr and the answer is IDOK (IDYES for MB_YESNO).
void AfxSetMessageBoxSink(AfxMessageBoxSink sink);

int AfxMessageBox(LPCTSTR text, UINT type = MB_OK, UINT helpId = 0);
// The text of a string resource; an unknown id shows an empty text.
int AfxMessageBox(UINT stringId, UINT type = MB_OK, UINT helpId = 0);
// Win32's form; the owner window and caption are ignored.
int MessageBox(HWND owner, LPCTSTR text, LPCTSTR caption, UINT type);
