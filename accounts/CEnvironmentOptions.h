// The host's program-wide settings for logging, password protection, window behaviour and view
// switches, kept in one registry key under HKEY_CURRENT_USER.
//
// An option set is a value: nothing is written back implicitly except by loading a key that did not
// exist, which writes the defaults. Registry failures are not reported: a value that is missing or
// cannot be read keeps the field's current content (a number stored with another type gives its first 4
// bytes), and write failures are ignored. "Tavik Password" is stored as given: the host decides what it
// puts there.
#pragma once

#include "platform/CString.h"
#include "platform/WinTypes.h"

class CEnvironmentOptions {
public:
    // Defaults, then LoadSettings(key) when key is not empty.
    CEnvironmentOptions(CString key = "");
    CEnvironmentOptions(const CEnvironmentOptions&) = default;
    CEnvironmentOptions& operator=(const CEnvironmentOptions&) = default;
    virtual ~CEnvironmentOptions() = default;

    void ResetValues();
    // Empty key: nothing. A key that did not exist is created and filled with the defaults; an existing
    // one is read.
    void LoadSettings(CString key);
    // Empty key: nothing. Otherwise every field as REG_SZ or REG_DWORD.
    void SaveSettings(CString key);

    DWORD GetAutoRemove() const { return m_dwAutoRemove; }
    DWORD GetLogDebug() const { return m_dwLogDebug; }
    DWORD GetLogEnabled() const { return m_dwLogEnabled; }
    DWORD GetPassProtect() const { return m_dwPassProtect; }
    DWORD GetSaveHeaders() const { return m_dwSaveHeaders; }
    DWORD GetLogStandard() const { return m_dwLogStandard; }
    DWORD GetStartMinimized() const { return m_dwStartMinimized; }
    DWORD GetViewType() const { return m_dwViewType; }
    DWORD GetAutoMaintain() const { return m_dwAutoMaintain; }
    DWORD GetHideMinimized() const { return m_dwHideMinimized; }
    DWORD GetTimeoutValue() const { return m_dwTimeoutValue; }
    DWORD GetThreshold() const { return m_dwThreshold; }
    DWORD GetRetrieveBody() const { return m_dwRetrieveBody; }
    DWORD GetHideOnCmd() const { return m_dwHideOnCmd; }
    DWORD GetShowFolderSize() const { return m_dwShowFolderSize; }
    DWORD GetShowInfoView() const { return m_dwShowInfoView; }
    DWORD GetShowFolderView() const { return m_dwShowFolderView; }
    DWORD GetAlwaysOnTop() const { return m_dwAlwaysOnTop; }
    DWORD GetNoInstancePrompt() const { return m_dwNoInstancePrompt; }
    const CString& GetLogFilename() const { return m_strLogFilename; }
    const CString& GetTavikPassword() const { return m_strTavikPassword; }

    void SetAutoRemove(DWORD value) { m_dwAutoRemove = value; }
    void SetLogDebug(DWORD value) { m_dwLogDebug = value; }
    void SetLogEnabled(DWORD value) { m_dwLogEnabled = value; }
    void SetPassProtect(DWORD value) { m_dwPassProtect = value; }
    void SetSaveHeaders(DWORD value) { m_dwSaveHeaders = value; }
    void SetLogStandard(DWORD value) { m_dwLogStandard = value; }
    void SetStartMinimized(DWORD value) { m_dwStartMinimized = value; }
    void SetViewType(DWORD value) { m_dwViewType = value; }
    void SetAutoMaintain(DWORD value) { m_dwAutoMaintain = value; }
    void SetHideMinimized(DWORD value) { m_dwHideMinimized = value; }
    void SetTimeoutValue(DWORD value) { m_dwTimeoutValue = value; }
    void SetThreshold(DWORD value) { m_dwThreshold = value; }
    void SetRetrieveBody(DWORD value) { m_dwRetrieveBody = value; }
    void SetHideOnCmd(DWORD value) { m_dwHideOnCmd = value; }
    void SetShowFolderSize(DWORD value) { m_dwShowFolderSize = value; }
    void SetShowInfoView(DWORD value) { m_dwShowInfoView = value; }
    void SetShowFolderView(DWORD value) { m_dwShowFolderView = value; }
    void SetAlwaysOnTop(DWORD value) { m_dwAlwaysOnTop = value; }
    void SetNoInstancePrompt(DWORD value) { m_dwNoInstancePrompt = value; }
    void SetLogFilename(CString value) { m_strLogFilename = value; }
    void SetTavikPassword(CString value) { m_strTavikPassword = value; }

private:
    template <class Texts, class Numbers>
    void Bind(Texts& texts, Numbers& numbers);

    DWORD m_dwAutoRemove = 0;
    DWORD m_dwLogDebug = 0;
    DWORD m_dwLogEnabled = 0;
    DWORD m_dwPassProtect = 0;
    DWORD m_dwSaveHeaders = 1;
    DWORD m_dwLogStandard = 0;
    DWORD m_dwStartMinimized = 0;
    DWORD m_dwViewType = 0;
    DWORD m_dwAutoMaintain = 0;
    DWORD m_dwHideMinimized = 1;
    DWORD m_dwTimeoutValue = 60;
    DWORD m_dwThreshold = 0xF000;
    DWORD m_dwRetrieveBody = 0;
    DWORD m_dwHideOnCmd = 0;
    DWORD m_dwShowFolderSize = 1;
    DWORD m_dwShowInfoView = 1;
    DWORD m_dwShowFolderView = 1;
    DWORD m_dwAlwaysOnTop = 0;
    DWORD m_dwNoInstancePrompt = 0;
    CString m_strLogFilename;
    CString m_strTavikPassword;
};
