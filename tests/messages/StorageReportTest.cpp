// Storage failures on a worker thread reach the live error window as rows, while the window's own
// thread is the only one touching its list.
#include <gtest/gtest.h>

#include <mutex>
#include <thread>
#include <vector>

#include "messages/CMessageList.h"
#include "messages/CStorageManager.h"
#include "platform/Kernel.h"
#include "tests/support/TempDir.h"
#include "util/CErrorWindow.h"

using tavik::test::TempDir;

TEST(StorageReport, FailuresOnAWorkerThreadArriveAtTheErrorWindow) {
    std::mutex lock;
    std::vector<std::string> rows;
    CErrorWindow::SetRowObserver([&](const CString& row) {
        std::lock_guard<std::mutex> guard(lock);
        rows.emplace_back(row.GetString());
    });
    CWinThread* thread = AfxBeginThread(RUNTIME_CLASS(CErrorWindow), 0, 0, CREATE_SUSPENDED);
    ASSERT_NE(thread, nullptr);
    thread->m_bAutoDelete = FALSE;
    thread->ResumeThread();
    ASSERT_TRUE(CErrorWindow::WaitUntilReady(5000));

    TempDir dir;
    std::thread worker([&] {
        CStorageManager file(dir.file("w.tvd").c_str(), true);
        CStorageManager child;
        try {
            child.OpenSubStorage(file.m_pStorage, "Missing", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, false,
                                 false);
        } catch (CStorageManagerException* e) {
            e->Delete();
        }
        // A record whose sub-storage is open elsewhere fails to load: the record swallows the failure,
        // the window still hears of it.
        CStorageManager holder;
        holder.OpenSubStorage(file.m_pStorage, "HELD", STGM_READWRITE | STGM_SHARE_EXCLUSIVE, true, false);
        CMessageList held(file.m_pStorage);
        held.LoadMessage(file.m_pStorage, "HELD", nullptr);
    });
    worker.join();

    {
        std::lock_guard<std::mutex> guard(lock);
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[0], "STG_E_FILENOTFOUND: File or Stream not found");
        EXPECT_EQ(rows[1].rfind("STG_E_ACCESSDENIED: ", 0), 0u);
    }
    EXPECT_TRUE(IsWindowVisible(CErrorWindow::GetErrorWindow()));

    PostMessage(CErrorWindow::GetErrorWindow(), WM_CLOSE, 0, 0);
    EXPECT_EQ(WaitForSingleObject(thread->m_hThread, 5000), WAIT_OBJECT_0);
    delete thread;
    CErrorWindow::SetRowObserver(nullptr);

    // With no window the exception is still made and simply not shown.
    CStorageManagerException quiet(STG_E_INVALIDNAME);
    EXPECT_EQ(quiet.m_strMessage, "STG_E_INVALIDNAME: Invalid Name");
}
