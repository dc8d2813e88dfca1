#include "host/StopSignals.h"

namespace tavik::host {

namespace {

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void OnStopSignal(int) { g_stop.store(true); }

}  // namespace

StopSignals::StopSignals() {
    g_stop = false;
    m_previousInt = std::signal(SIGINT, OnStopSignal);
    m_previousTerm = std::signal(SIGTERM, OnStopSignal);
}

StopSignals::~StopSignals() {
    std::signal(SIGINT, m_previousInt == SIG_ERR ? SIG_DFL : m_previousInt);
    std::signal(SIGTERM, m_previousTerm == SIG_ERR ? SIG_DFL : m_previousTerm);
}

const std::atomic<bool>* StopSignals::Flag() const { return &g_stop; }

}  // namespace tavik::host
