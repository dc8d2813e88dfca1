#include "platform/MessageBox.h"

#include <atomic>
#include <cstdio>

#include "platform/CString.h"

namespace {
std::atomic<AfxMessageBoxSink> g_sink{nullptr};
}

void AfxSetMessageBoxSink(AfxMessageBoxSink sink) { g_sink.store(sink); }

int AfxMessageBox(LPCTSTR text, UINT type, UINT) {
    if (text == nullptr) text = "";
    if (AfxMessageBoxSink sink = g_sink.load()) return sink(text, type);
    std::fprintf(stderr, "%s\n", text);
    UINT buttons = type & 0xF;
    return (buttons == MB_YESNO || buttons == MB_YESNOCANCEL) ? IDYES : IDOK;
}

int AfxMessageBox(UINT stringId, UINT type, UINT helpId) {
    CString text;
    text.LoadString(stringId);
    return AfxMessageBox(text.GetString(), type, helpId);
}

int MessageBox(HWND, LPCTSTR text, LPCTSTR, UINT type) { return AfxMessageBox(text, type); }
