// What every failing CBlockingSocket operation throws (as a heap pointer; the catcher calls Delete()).
#pragma once

#include "platform/CException.h"
#include "platform/CString.h"

class CBlockingSocketException : public CException {
    DECLARE_DYNAMIC(CBlockingSocketException)
public:
    // Keeps the operation label and the calling thread's current Windows Sockets error, so it must be
    // constructed on the thread whose call failed, before anything else touches the error.
    explicit CBlockingSocketException(const char* operation);

    // Copies at most max - 1 characters of the text, terminated, into buf (nothing when max is 0) and
    // returns TRUE. The text is "<label> error" for error 0, else the code's sentence, else
    // "<label> error #<code>". A TLS failure's sentence is followed by its detail: "The server's
    // certificate does not name the server: it is for a.example, not b.example".
    BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const override;
    // The same text (up to 1023 characters). It also replaces the stored label, as the clients expect,
    // so a second call builds its text from the first one's.
    CString GetErrorMessage();

    int m_nError;
    CString m_strMessage;
    // For a TLS failure, what the platform said about it (taken at construction); empty otherwise.
    CString m_strDetail;

protected:
    // Writes the sentence for m_nError into buffer (1024 characters) and returns 1, or returns 0 and leaves
    // buffer alone when the code has none.
    int GetErrorDescription(char* buffer) const;
};
