#include "messages/CStorageManagerException.h"

#include <cstring>

#include "util/CErrorWindow.h"

IMPLEMENT_DYNAMIC(CStorageManagerException, CException)

CStorageManagerException::CStorageManagerException(HRESULT hResult) : m_hResult(hResult) {
    FormatError();
    Report();
}

CStorageManagerException::CStorageManagerException(CString text) : m_strMessage(std::move(text)) { Report(); }

CStorageManagerException::~CStorageManagerException() = default;

void CStorageManagerException::Report() const { CErrorWindow::ReportError(m_strMessage); }

BOOL CStorageManagerException::GetErrorMessage(LPTSTR buf, UINT max, UINT* helpContext) const {
    if (helpContext) *helpContext = 0;
    if (!buf || max == 0) return FALSE;
    size_t n = std::min<size_t>(static_cast<size_t>(m_strMessage.GetLength()), max - 1);
    std::memcpy(buf, m_strMessage.GetString(), n);
    buf[n] = '\0';
    return !m_strMessage.IsEmpty();
}

void CStorageManagerException::FormatError() {
    static const struct {
        HRESULT code;
        const char* text;
    } kTexts[] = {
        {STG_E_INVALIDFUNCTION, "STG_E_INVALIDFUNCTION: The specified combination of flags is not supported"},
        {STG_E_FILENOTFOUND, "STG_E_FILENOTFOUND: File or Stream not found"},
        {STG_E_TOOMANYOPENFILES,
         "STG_E_TOOMANYOPENFILES: The compound file was not created due to a lack of file handles"},
        {STG_E_ACCESSDENIED,
         "STG_E_ACCESSDENIED: Access denied because the caller has insufficient permission, or another "
         "caller "
         "has the file open and locked"},
        {STG_E_INSUFFICIENTMEMORY,
         "STG_E_INSUFFICIENTMEMORY: Indicates the compound file was not created due to a lack of memory"},
        {STG_E_INVALIDPOINTER, "STG_E_INVALIDPOINTER: The pointer specified for the object was invalid"},
        {STG_E_LOCKVIOLATION,
         "STG_E_LOCKVIOLATION: Access denied because another caller has the file open and locked"},
        {STG_E_FILEALREADYEXISTS,
         "STG_E_FILEALREADYEXISTS: The compound file already exists and grfMode is set to STGM_FAILIFTHERE"},
        {STG_E_INVALIDPARAMETER, "STG_E_INVALIDPARAMETER: One of the parameters was not valid"},
        {STG_E_MEDIUMFULL, "STG_E_MEDIUMFULL: No space left on device to commit"},
        {STG_E_INVALIDNAME, "STG_E_INVALIDNAME: Invalid Name"},
        {STG_E_INVALIDFLAG, "STG_E_INVALIDFLAG: Bad flag combination"},
        {STG_E_NOTCURRENT,
         "STG_E_NOTCURRENT: Another open instance of the storage object has committed changes."},
        {STG_E_REVERTED,
         "STG_E_REVERTED: The storage object has been invalidated by a revert operation above it in the "
         "transaction tree"},
    };
    for (const auto& entry : kTexts) {
        if (entry.code == m_hResult) {
            m_strMessage = entry.text;
            return;
        }
    }
    // The trailing letter is part of the established text ("%ul" printed the number, then an 'l').
    m_strMessage.Format("Unknown Error: %ul", static_cast<unsigned>(m_hResult));
}
