// The error window on its own thread: rows arrive from other threads in order, the dialog shows at each
// and hides at "Close", and cancelling ends the thread.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/Kernel.h"
#include "util/CErrorWindow.h"

namespace {

struct Observed {
    std::mutex lock;
    std::vector<std::string> rows;
    std::vector<bool> visibility;
    DWORD rowThread = 0;
};

class ErrorWindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        CErrorWindow::SetRowObserver([this](const CString& row) {
            std::lock_guard<std::mutex> lock(m_seen.lock);
            m_seen.rows.emplace_back(row.GetString());
            m_seen.rowThread = GetCurrentThreadId();
        });
        CErrorWindow::SetVisibilityObserver([this](bool visible) {
            std::lock_guard<std::mutex> lock(m_seen.lock);
            m_seen.visibility.push_back(visible);
        });
        m_thread = AfxBeginThread(RUNTIME_CLASS(CErrorWindow), 0, 0, CREATE_SUSPENDED);
        ASSERT_NE(m_thread, nullptr);
        m_thread->m_bAutoDelete = FALSE;
        m_thread->ResumeThread();
        ASSERT_TRUE(CErrorWindow::WaitUntilReady(5000));
    }
    void TearDown() override {
        if (HWND window = CErrorWindow::GetErrorWindow()) PostMessage(window, WM_CLOSE, 0, 0);
        if (m_thread) {
            EXPECT_EQ(WaitForSingleObject(m_thread->m_hThread, 5000), WAIT_OBJECT_0);
            delete m_thread;
        }
        CErrorWindow::SetRowObserver(nullptr);
        CErrorWindow::SetVisibilityObserver(nullptr);
    }
    std::vector<std::string> rows() {
        std::lock_guard<std::mutex> lock(m_seen.lock);
        return m_seen.rows;
    }
    bool lastVisibility() {
        std::lock_guard<std::mutex> lock(m_seen.lock);
        return !m_seen.visibility.empty() && m_seen.visibility.back();
    }

    CWinThread* m_thread = nullptr;
    Observed m_seen;
};

}  // namespace

TEST_F(ErrorWindowTest, StartsHiddenAndCollectsReportsInOrderOnItsOwnThread) {
    HWND window = CErrorWindow::GetErrorWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_FALSE(IsWindowVisible(window));

    // Reports from a worker: each send returns once the row is in.
    DWORD workerId = 0;
    std::thread worker([&] {
        workerId = GetCurrentThreadId();
        CErrorWindow::ReportError("first failure");
        CErrorWindow::ReportError("second failure");
    });
    worker.join();
    EXPECT_EQ(rows(), (std::vector<std::string>{"first failure", "second failure"}));
    EXPECT_NE(m_seen.rowThread, workerId);
    EXPECT_NE(m_seen.rowThread, GetCurrentThreadId());
    EXPECT_TRUE(lastVisibility());

    // A message without a text adds nothing.
    EXPECT_EQ(SendMessage(window, WM_ERROR_MESSAGE, 0, 0), 0);
    EXPECT_EQ(rows().size(), 2u);

    // "Close" hides without ending; the next report shows it again.
    SendMessage(window, WM_COMMAND, IDOK, 0);
    EXPECT_FALSE(IsWindowVisible(window));
    CErrorWindow::ReportError("third");
    EXPECT_TRUE(IsWindowVisible(window));
    EXPECT_EQ(rows().size(), 3u);
}

TEST_F(ErrorWindowTest, ManyReportersAreSerialisedThroughTheWindow) {
    std::vector<std::thread> reporters;
    for (int t = 0; t < 4; ++t) {
        reporters.emplace_back([t] {
            for (int i = 0; i < 25; ++i) {
                CString text;
                text.Format("t%d-%02d", t, i);
                CErrorWindow::ReportError(text);
            }
        });
    }
    for (auto& r : reporters) r.join();
    std::vector<std::string> got = rows();
    ASSERT_EQ(got.size(), 100u);
    // Each reporter's rows keep their order.
    for (int t = 0; t < 4; ++t) {
        int last = -1;
        for (const std::string& row : got) {
            if (row[1] - '0' != t) continue;
            int n = std::stoi(row.substr(3));
            EXPECT_GT(n, last);
            last = n;
        }
    }
}

TEST_F(ErrorWindowTest, CancellingEndsTheThreadAndLaterReportsAreDropped) {
    HWND window = CErrorWindow::GetErrorWindow();
    SendMessage(window, WM_COMMAND, IDCANCEL, 0);
    ASSERT_EQ(WaitForSingleObject(m_thread->m_hThread, 5000), WAIT_OBJECT_0);
    EXPECT_EQ(CErrorWindow::GetErrorWindow(), nullptr);
    EXPECT_FALSE(IsWindow(window));
    CErrorWindow::ReportError("nobody listens");  // returns at once
    EXPECT_TRUE(rows().empty());
}
