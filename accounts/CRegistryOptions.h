// The host's program-wide settings for scanning, dial-up, sounds, the external mail client, the
// notification files and the message database, kept in one registry key under HKEY_CURRENT_USER.
//
// An option set is a value: nothing is written back implicitly except by loading, which writes the
// defaults into a key it had to create and the database fallback below. Registry failures are not
// reported: a value that is missing or cannot be read keeps the field's current content (a number
// stored with another type gives its first 4 bytes), and write failures are ignored.
#pragma once

#include "platform/CString.h"
#include "platform/WinTypes.h"

class CRegistryOptions {
public:
    // The key path is the string resource id (an unknown id gives the empty path).
    explicit CRegistryOptions(UINT id);
    // Defaults, then LoadSettings(key) when key is not empty.
    CRegistryOptions(CString key = "");
    CRegistryOptions(const CRegistryOptions&) = default;
    CRegistryOptions& operator=(const CRegistryOptions&) = default;
    virtual ~CRegistryOptions() = default;

    void ResetValues();
    // Empty key: nothing. A key that did not exist is created and filled with the defaults; an existing
    // one is read. Then, when "Database" does not name an existing file, it becomes "mailread.tvk" in the
    // host's directory (the directory of GetModuleFileName) and the whole set is saved again.
    void LoadSettings(CString key);
    // Empty key: nothing. Otherwise every field as REG_SZ or REG_DWORD.
    void SaveSettings(CString key);

    const CString& GetActiveRAS() const { return m_strActiveRAS; }
    const CString& GetSoundFilename() const { return m_strSoundFilename; }
    const CString& GetDataFile() const { return m_strDataFile; }
    const CString& GetHomePage() const { return m_strHomePage; }
    const CString& GetExternalClient() const { return m_strExternalClient; }
    DWORD GetDialupEnabled() const { return m_dwDialupEnabled; }
    DWORD GetAutoScan() const { return m_dwAutoScan; }
    DWORD GetScanStartup() const { return m_dwScanStartup; }
    DWORD GetCheckInterval() const { return m_dwCheckInterval; }
    DWORD GetNoDisconnect() const { return m_dwNoDisconnect; }
    DWORD GetScanStrict() const { return m_dwScanStrict; }
    DWORD GetEnableSound() const { return m_dwEnableSound; }
    DWORD GetEnablePopupMsg() const { return m_dwEnablePopupMsg; }
    DWORD GetEnableExternal() const { return m_dwEnableExternal; }
    DWORD GetFirstRun() const { return m_dwFirstRun; }
    const CString& GetAbuseFilename() const { return m_strAbuseFilename; }
    const CString& GetAdminFilename() const { return m_strAdminFilename; }
    const CString& GetPostmasterFilename() const { return m_strPostmasterFilename; }
    const CString& GetHelpFile() const { return m_strHelpFile; }

    // The database path, the web page and the help file change only through loading.
    void SetActiveRAS(CString value) { m_strActiveRAS = value; }
    void SetSoundFilename(CString value) { m_strSoundFilename = value; }
    void SetExternalClient(CString value) { m_strExternalClient = value; }
    void SetAbuseFilename(CString value) { m_strAbuseFilename = value; }
    void SetAdminFilename(CString value) { m_strAdminFilename = value; }
    void SetPostmasterFilename(CString value) { m_strPostmasterFilename = value; }
    void SetDialupEnabled(DWORD value) { m_dwDialupEnabled = value; }
    void SetEnableSound(DWORD value) { m_dwEnableSound = value; }
    void SetAutoScan(DWORD value) { m_dwAutoScan = value; }
    void SetScanStartup(DWORD value) { m_dwScanStartup = value; }
    void SetCheckInterval(DWORD value) { m_dwCheckInterval = value; }
    void SetNoDisconnect(DWORD value) { m_dwNoDisconnect = value; }
    void SetScanStrict(DWORD value) { m_dwScanStrict = value; }
    void SetEnablePopupMsg(DWORD value) { m_dwEnablePopupMsg = value; }
    void SetEnableExternal(DWORD value) { m_dwEnableExternal = value; }
    void ClearFirstRun() { m_dwFirstRun = 0; }

private:
    template <class Texts, class Numbers>
    void Bind(Texts& texts, Numbers& numbers);

    CString m_strActiveRAS;
    CString m_strSoundFilename;
    CString m_strDataFile;
    CString m_strHomePage;
    CString m_strExternalClient;
    DWORD m_dwDialupEnabled = 0;
    DWORD m_dwAutoScan = 1;
    DWORD m_dwScanStartup = 0;
    DWORD m_dwCheckInterval = 10;
    DWORD m_dwNoDisconnect = 0;
    DWORD m_dwScanStrict = 0;
    DWORD m_dwEnableSound = 0;
    DWORD m_dwEnablePopupMsg = 1;
    DWORD m_dwEnableExternal = 0;
    DWORD m_dwFirstRun = 1;
    CString m_strAbuseFilename;
    CString m_strAdminFilename;
    CString m_strPostmasterFilename;
    CString m_strHelpFile;
};
