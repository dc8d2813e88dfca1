// Ctrl-C and SIGTERM as a request to stop: while an object of this class lives, either signal only sets
// a flag that long work looks at between steps (messages, accounts, rounds), so that a stop never cuts
// a save in half. The handlers in place before are restored when it goes.
#pragma once

#include <atomic>
#include <csignal>

namespace tavik::host {

class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    const std::atomic<bool>* Flag() const;
    bool Stopped() const { return Flag()->load(); }

private:
    void (*m_previousInt)(int) = nullptr;
    void (*m_previousTerm)(int) = nullptr;
};

}  // namespace tavik::host
