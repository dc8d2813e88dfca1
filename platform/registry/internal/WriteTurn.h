// Turns at writing the store, among processes. SQLite's write lock is taken by trying: a process that
// commits small transactions back to back holds it but for moments between them, and another process
// that tries now and then can wait out its whole time-out. Here a writer that has to wait says so, and a
// writer that has just finished lets everyone who said so go first before it takes another turn.
// Both are locks on one file beside the store, which the system drops when a process dies.
#pragma once

#include <chrono>
#include <string>

namespace tavik::platform {

class WriteTurn {
public:
    WriteTurn() = default;
    ~WriteTurn() { Close(); }
    WriteTurn(const WriteTurn&) = delete;
    WriteTurn& operator=(const WriteTurn&) = delete;

    // Opens (creating it owner-only) the file of turns. Without it, or where its locks fail, Take
    // succeeds at once and writers meet at SQLite's lock alone.
    void Open(const std::string& path);
    void Close();
    // Waits for this process's turn; false when the deadline came first.
    bool Take(std::chrono::steady_clock::time_point deadline);
    // Ends the turn, if one is held.
    void Give();

private:
    enum class Lock { kGot, kBusy, kBroken };
    Lock Set(int byte, short type);

    int m_fd = -1;
    bool m_held = false;
};

}  // namespace tavik::platform
