// The library's error window for the command-line host: started for the whole run, its new rows
// printed to standard error as they arrive.
#pragma once

class CWinThread;

namespace tavik::host {

class ErrorWindowHost {
public:
    // Starts the error thread and waits (briefly) until it takes reports.
    ErrorWindowHost();
    // Cancels the dialog and waits for the thread to end.
    ~ErrorWindowHost();
    ErrorWindowHost(const ErrorWindowHost&) = delete;
    ErrorWindowHost& operator=(const ErrorWindowHost&) = delete;

private:
    CWinThread* m_thread = nullptr;
};

}  // namespace tavik::host
