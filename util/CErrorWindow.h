// The error-message window: a user-interface thread of its own running a hidden dialog whose list
// collects the failure texts other threads report to it. Only the dialog's thread touches the list;
// others reach it with SendMessage(WM_USER + 500, 0, address of a CString).
#pragma once

#include <functional>
#include <vector>

#include "platform/CString.h"
#include "platform/CWinThread.h"
#include "platform/WindowMessages.h"

constexpr UINT WM_ERROR_MESSAGE = WM_USER + 500;

namespace tavik {
// The dialog's resource (its template is in library/ErrorDialogResource.h) and its list control.
constexpr UINT IDD_ERROR_DIALOG = 130;
constexpr int IDC_ERROR_LIST = 1000;
}  // namespace tavik

// The error dialog's model: a one-column report list, shown at each new row, hidden by "Close".
class CErrorDialog {
public:
    CErrorDialog();
    ~CErrorDialog();
    CErrorDialog(const CErrorDialog&) = delete;
    CErrorDialog& operator=(const CErrorDialog&) = delete;

    // Creates the window, initialises it and runs the modal loop until the dialog is cancelled;
    // returns IDCANCEL then (-1 when the window could not be made, or the library's dialog template is
    // not among the process's resources).
    INT_PTR DoModal();
    HWND GetSafeHwnd() const { return m_hWnd; }

    // The list, on the dialog's thread only.
    int GetRowCount() const { return static_cast<int>(m_rows.size()); }
    CString GetRow(int index) const { return m_rows.at(static_cast<size_t>(index)); }
    CString GetColumnTitle() const { return m_strColumn; }
    int GetColumnWidth() const { return m_nColumnWidth; }

protected:
    virtual BOOL OnInitDialog();
    virtual void OnOK();      // "Close": hides
    virtual void OnCancel();  // ends the modal loop, and with it the error thread
    void OnTimer(UINT_PTR id);
    LRESULT OnErrorMessage(WPARAM wParam, LPARAM lParam);

private:
    static LRESULT WndProc(HWND hwnd, UINT message, WPARAM wParam, LPARAM lParam);

    HWND m_hWnd = nullptr;
    std::vector<CString> m_rows;  // the list control bound to control 1000
    CString m_strColumn;
    int m_nColumnWidth = 0;
    UINT_PTR m_nTimer = 0;
    int m_bFirstTime = 1;
};

class CErrorWindow : public CWinThread {
    DECLARE_DYNCREATE(CErrorWindow)
public:
    BOOL InitInstance() override;
    int ExitInstance() override;

    // The live error dialog's window, null while none exists.
    static HWND GetErrorWindow();
    // Sends the text to the live error dialog and waits until it is in the list; dropped without one.
    static void ReportError(const CString& text);

    // Host observation, called on the error thread: each new row, and each change of visibility.
    // Install before starting the thread (or while none runs); empty functions stop the calls.
    static void SetRowObserver(std::function<void(const CString& row)> observer);
    static void SetVisibilityObserver(std::function<void(bool visible)> observer);
    // Waits until a dialog exists and has run its start timer (so it is hidden and ready for rows);
    // false after the time limit.
    static bool WaitUntilReady(DWORD milliseconds);

protected:
    CErrorWindow();
    ~CErrorWindow() override;
};
