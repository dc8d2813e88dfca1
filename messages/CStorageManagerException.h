// A storage failure: its text and, when made from one, the HRESULT. Thrown as a heap pointer; the
// catcher calls Delete(). Making one reports its text to the live error window (if any), waiting until
// the window has taken it.
#pragma once

#include "platform/CException.h"
#include "platform/CString.h"
#include "platform/OleStorage.h"

class CStorageManagerException : public CException {
    DECLARE_DYNAMIC(CStorageManagerException)
public:
    explicit CStorageManagerException(HRESULT hResult);
    explicit CStorageManagerException(CString text);
    ~CStorageManagerException() override;

    BOOL GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext = nullptr) const override;

    CString m_strMessage;
    HRESULT m_hResult = S_OK;

protected:
    // Fills the text from the code: the storage codes' descriptions, "Unknown Error: " for the rest.
    void FormatError();

private:
    void Report() const;
};
