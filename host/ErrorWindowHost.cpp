#include "host/ErrorWindowHost.h"

#include <cstdio>

#include "platform/Kernel.h"
#include "util/CErrorWindow.h"

namespace tavik::host {

ErrorWindowHost::ErrorWindowHost(FILE* err) {
    CErrorWindow::SetRowObserver([err](const CString& row) {
        std::fprintf(err, "tavik: error: %s\n", row.GetString());
        std::fflush(err);
    });
    m_thread = AfxBeginThread(RUNTIME_CLASS(CErrorWindow), 0, 0, CREATE_SUSPENDED);
    if (!m_thread) return;
    // Kept alive past its thread's end so that its handle can be waited on.
    m_thread->m_bAutoDelete = FALSE;
    m_thread->ResumeThread();
    CErrorWindow::WaitUntilReady(2000);
}

ErrorWindowHost::~ErrorWindowHost() {
    if (m_thread) {
        if (HWND window = CErrorWindow::GetErrorWindow()) PostMessage(window, WM_CLOSE, 0, 0);
        WaitForSingleObject(m_thread->m_hThread, 5000);
        delete m_thread;
    }
    CErrorWindow::SetRowObserver(nullptr);
}

}  // namespace tavik::host
