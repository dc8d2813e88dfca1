// An in-process line-protocol server on 127.0.0.1 with an ephemeral port, driven by a script of steps:
// expected client lines and the bytes to answer, with knobs for delays, dribbled or chunked writes,
// closing, and never answering. It knows no protocol; POP3 and SMTP tests both use it.
//
// The script runs on a thread of its own over one accepted connection. At the first line that differs
// from the script it records an error and closes the connection. Tests compare everything the client
// sent (Received()) and expect Finish() to return no errors.
//
// Synchronisation is by events, never by sleeping in the test: Mark() lets the test wait until the
// script got somewhere, Gate() holds the script until the test opens it.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tavik::test {

class ScriptedServer {
public:
    ScriptedServer();  // binds and listens at once, so Port() is valid before Start()
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    unsigned short Port() const { return m_port; }

    // Script steps, run in order. Build the whole script before Start().
    // Reads one line (through "\n") and compares it with line, which includes its "\r\n".
    ScriptedServer& Expect(std::string line);
    // Reads through the first "\r\n.\r\n" (an SMTP message's end mark) and compares everything read with
    // text, which includes the end mark.
    ScriptedServer& ExpectData(std::string text);
    // Writes bytes. chunk > 0 writes them in pieces of that many bytes with pauseMs between pieces
    // (chunk 1 dribbles byte by byte).
    ScriptedServer& Send(std::string bytes, size_t chunk = 0, int pauseMs = 0);
    // Expects the client to send nothing for ms (it should be waiting for a reply): anything that is
    // already waiting or arrives meanwhile is an error (and still goes to the following Expect steps).
    ScriptedServer& Quiet(int ms);
    ScriptedServer& Delay(int ms);
    // Closes the connection (the client sees end of stream).
    ScriptedServer& Close();
    // Never answers again: records whatever arrives until Stop(). Counts as a finished script.
    ScriptedServer& Hold();
    // Records that the script got here; WaitMark returns once it has.
    ScriptedServer& Mark(std::string name);
    // Waits here until the test calls Open(name) (or the server stops).
    ScriptedServer& Gate(std::string name);

    // Runs the script on its own thread; the first connection is accepted implicitly.
    void Start();
    bool WaitMark(const std::string& name, int timeoutMs = 10000);
    void Open(const std::string& name);
    // Waits up to timeoutMs for the script to end, stops the server and returns every error, one a
    // line; empty when the client followed the script and nothing unexpected arrived.
    std::string Finish(int timeoutMs = 10000);
    // Stops the thread and closes every socket; idempotent.
    void Stop();

    // Everything the client sent, in order.
    std::string Received() const;

private:
    struct Step {
        enum Kind { kExpect, kExpectData, kSend, kDelay, kClose, kHold, kMark, kGate, kQuiet } kind;
        std::string text;
        size_t chunk = 0;
        int ms = 0;
    };

    void Run();
    void RunSteps();
    void MarkDone();
    bool AcceptOne();
    bool ReadThrough(const std::string& mark, std::string& text);
    bool WriteAll(const char* data, size_t size);
    bool Pause(int ms);  // false when stopping
    void CloseConnection();
    void Error(const std::string& text);

    std::vector<Step> m_steps;
    int m_listen = -1;
    int m_conn = -1;
    int m_wake[2] = {-1, -1};
    unsigned short m_port = 0;
    std::thread m_thread;
    std::string m_inbuf;

    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_stopping = false;
    bool m_done = false;
    size_t m_step = 0;
    std::set<std::string> m_marks;
    std::set<std::string> m_open;
    std::string m_received;
    std::vector<std::string> m_errors;
};

// Shows control characters so that a failing transcript comparison is readable.
std::string Visible(const std::string& bytes);

}  // namespace tavik::test
