// The library's error window for the command-line host: started while a command runs, its new rows
// printed to the command's error stream as they arrive.
#pragma once

#include <cstdio>

class CWinThread;

namespace tavik::host {

class ErrorWindowHost {
public:
    // Starts the error thread and waits (briefly) until it takes reports.
    explicit ErrorWindowHost(FILE* err);
    // Cancels the dialog and waits for the thread to end.
    ~ErrorWindowHost();
    ErrorWindowHost(const ErrorWindowHost&) = delete;
    ErrorWindowHost& operator=(const ErrorWindowHost&) = delete;

private:
    CWinThread* m_thread = nullptr;
};

}  // namespace tavik::host
