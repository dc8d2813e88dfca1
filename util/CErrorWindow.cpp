#include "util/CErrorWindow.h"

#include <condition_variable>
#include <mutex>

#include "platform/CDynLinkLibrary.h"

namespace {

constexpr UINT_PTR kStartTimerId = 33;

// The process-wide error dialog and what the host watches of it.
std::mutex g_lock;
std::condition_variable g_readyChanged;
CErrorDialog* g_pErrorDialog = nullptr;
HWND g_hErrorWnd = nullptr;  // the dialog's window, published once it exists
bool g_ready = false;
std::function<void(const CString&)> g_rowObserver;
std::function<void(bool)> g_visibilityObserver;

void notifyRow(const CString& row) {
    std::function<void(const CString&)> observer;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        observer = g_rowObserver;
    }
    if (observer) observer(row);
}

void notifyVisibility(bool visible) {
    std::function<void(bool)> observer;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        observer = g_visibilityObserver;
    }
    if (observer) observer(visible);
}

}  // namespace

CErrorDialog::CErrorDialog() = default;

CErrorDialog::~CErrorDialog() {
    if (m_hWnd && IsWindow(m_hWnd)) DestroyWindow(m_hWnd);
}

INT_PTR CErrorDialog::DoModal() {
    // The template is the library's resource: without the library attached there is no dialog to make.
    if (!AfxFindDialogResource(tavik::IDD_ERROR_DIALOG)) return -1;
    m_hWnd = CreateMessageWindow(&CErrorDialog::WndProc, this);
    if (!m_hWnd) return -1;
    OnInitDialog();
    // The modal loop shows a dialog once it is initialised; the start timer then hides it again.
    ShowWindow(m_hWnd, SW_SHOW);
    INT_PTR result = RunModalLoop(m_hWnd);
    return result;
}

BOOL CErrorDialog::OnInitDialog() {
    {
        std::lock_guard<std::mutex> lock(g_lock);
        if (g_pErrorDialog == this) g_hErrorWnd = m_hWnd;
    }
    if (CWinThread* thread = AfxGetThread()) thread->m_pMainWnd = m_hWnd;
    m_strColumn = "Error Message";
    m_nColumnWidth = 400;
    ShowWindow(m_hWnd, SW_HIDE);
    m_nTimer = SetTimer(m_hWnd, kStartTimerId, 1, nullptr);
    return TRUE;
}

void CErrorDialog::OnOK() { ShowWindow(m_hWnd, SW_HIDE); }

void CErrorDialog::OnCancel() { EndModalLoop(m_hWnd, IDCANCEL); }

void CErrorDialog::OnTimer(UINT_PTR id) {
    if (id != m_nTimer || !m_bFirstTime) return;
    if (!IsWindowVisible(m_hWnd)) return;
    ShowWindow(m_hWnd, SW_HIDE);
    KillTimer(m_hWnd, m_nTimer);
    m_bFirstTime = 0;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        g_ready = true;
    }
    g_readyChanged.notify_all();
}

LRESULT CErrorDialog::OnErrorMessage(WPARAM wParam, LPARAM lParam) {
    if (lParam == 0) return 0;
    const CString& text = *reinterpret_cast<const CString*>(lParam);
    m_rows.push_back(text);
    notifyRow(text);
    ShowWindow(m_hWnd, SW_SHOW);
    return 0;
}

LRESULT CErrorDialog::WndProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam) {
    auto self = reinterpret_cast<CErrorDialog*>(GetWindowLongPtr(hwnd, GWLP_USERDATA));
    if (!self) return DefWindowProc(hwnd, message, wParam, lParam);
    switch (message) {
        case WM_TIMER:
            self->OnTimer(wParam);
            return 0;
        case WM_ERROR_MESSAGE:
            return self->OnErrorMessage(wParam, lParam);
        case WM_COMMAND:
            if (LOWORD(wParam) == IDOK)
                self->OnOK();
            else if (LOWORD(wParam) == IDCANCEL)
                self->OnCancel();
            return 0;
        case WM_CLOSE:
            // The close box cancels a dialog.
            self->OnCancel();
            return 0;
        case WM_SHOWWINDOW:
            notifyVisibility(wParam != 0);
            return DefWindowProc(hwnd, message, wParam, lParam);
        default:
            return DefWindowProc(hwnd, message, wParam, lParam);
    }
}

IMPLEMENT_DYNCREATE(CErrorWindow, CWinThread)

CErrorWindow::CErrorWindow() = default;
CErrorWindow::~CErrorWindow() = default;

BOOL CErrorWindow::InitInstance() {
    CErrorDialog dialog;
    {
        std::lock_guard<std::mutex> lock(g_lock);
        g_pErrorDialog = &dialog;
        g_ready = false;
    }
    // The window exists only inside DoModal; reporters find it through the dialog pointer.
    dialog.DoModal();
    {
        std::lock_guard<std::mutex> lock(g_lock);
        g_pErrorDialog = nullptr;
        g_hErrorWnd = nullptr;
        g_ready = false;
    }
    m_pMainWnd = nullptr;
    return FALSE;  // the dialog was the thread's whole life
}

int CErrorWindow::ExitInstance() { return CWinThread::ExitInstance(); }

HWND CErrorWindow::GetErrorWindow() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_pErrorDialog ? g_hErrorWnd : nullptr;
}

void CErrorWindow::ReportError(const CString& text) {
    HWND window = GetErrorWindow();
    if (window && IsWindow(window)) SendMessage(window, WM_ERROR_MESSAGE, 0, reinterpret_cast<LPARAM>(&text));
}

void CErrorWindow::SetRowObserver(std::function<void(const CString& row)> observer) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_rowObserver = std::move(observer);
}

void CErrorWindow::SetVisibilityObserver(std::function<void(bool visible)> observer) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_visibilityObserver = std::move(observer);
}

bool CErrorWindow::WaitUntilReady(DWORD milliseconds) {
    std::unique_lock<std::mutex> lock(g_lock);
    return g_readyChanged.wait_for(lock, std::chrono::milliseconds(milliseconds),
                                   [] { return g_hErrorWnd && g_ready; });
}
