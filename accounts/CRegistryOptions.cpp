#include "accounts/CRegistryOptions.h"

#include <map>

#include "accounts/CRegistryManager.h"
#include "platform/FileSystem.h"
#include "util/CFileName.h"

namespace {

// Value names, as string resources.
enum : DWORD {
    IDS_ACTIVE_RAS = 3410,
    IDS_SOUND_FILENAME,
    IDS_DATABASE,
    IDS_WEB_SITE,
    IDS_EXTERNAL_CLIENT,
    IDS_ENABLE_DIALUP,
    IDS_AUTO_SCAN,
    IDS_STARTUP_SCAN,
    IDS_CHECKMAIL_INTERVAL,
    IDS_NO_DISCONNECT,
    IDS_STRICT_SCANNING,
    IDS_ENABLE_SOUND,
    IDS_ENABLE_POPUP_MESSAGE,
    IDS_ENABLE_EXTERNAL_CLIENT,
    IDS_FIRST_RUN,
    IDS_ABUSE_FILENAME,
    IDS_ADMIN_FILENAME,
    IDS_POSTMASTER_FILENAME,
    IDS_HELP_FILENAME,
};
// The product's web page, the default of "Web Site".
constexpr UINT IDS_PRODUCT_WEB_PAGE = 3404;

// The database the host falls back to: "mailread.tvk" beside the host's executable.
CString DefaultDataFile() {
    char module[_MAX_PATH + 1] = {};
    GetModuleFileName(nullptr, module, sizeof module);
    char drive[_MAX_DRIVE] = {}, dir[_MAX_DIR] = {};
    _splitpath(module, drive, dir, nullptr, nullptr);
    CString path;
    path.Format("%s%smailread.tvk", drive, dir);
    return path;
}

}  // namespace

CRegistryOptions::CRegistryOptions(UINT id) {
    ResetValues();
    CString key;
    key.LoadString(id);
    if (!key.IsEmpty()) LoadSettings(key);
}

CRegistryOptions::CRegistryOptions(CString key) {
    ResetValues();
    if (!key.IsEmpty()) LoadSettings(key);
}

void CRegistryOptions::ResetValues() {
    m_strActiveRAS.Empty();
    m_strSoundFilename.Empty();
    m_strDataFile.Empty();
    m_strHomePage.LoadString(IDS_PRODUCT_WEB_PAGE);
    m_strExternalClient.Empty();
    m_dwDialupEnabled = 0;
    m_dwAutoScan = 1;
    m_dwScanStartup = 0;
    m_dwCheckInterval = 10;
    m_dwNoDisconnect = 0;
    m_dwScanStrict = 0;
    m_dwEnableSound = 0;
    m_dwEnablePopupMsg = 1;
    m_dwEnableExternal = 0;
    m_dwFirstRun = 1;
    m_strAbuseFilename.Empty();
    m_strAdminFilename.Empty();
    m_strPostmasterFilename.Empty();
    m_strHelpFile.Empty();
}

template <class Texts, class Numbers>
void CRegistryOptions::Bind(Texts& texts, Numbers& numbers) {
    texts = {{IDS_ACTIVE_RAS, &m_strActiveRAS},
             {IDS_SOUND_FILENAME, &m_strSoundFilename},
             {IDS_DATABASE, &m_strDataFile},
             {IDS_WEB_SITE, &m_strHomePage},
             {IDS_EXTERNAL_CLIENT, &m_strExternalClient},
             {IDS_ABUSE_FILENAME, &m_strAbuseFilename},
             {IDS_ADMIN_FILENAME, &m_strAdminFilename},
             {IDS_POSTMASTER_FILENAME, &m_strPostmasterFilename},
             {IDS_HELP_FILENAME, &m_strHelpFile}};
    numbers = {{IDS_ENABLE_DIALUP, &m_dwDialupEnabled},
               {IDS_AUTO_SCAN, &m_dwAutoScan},
               {IDS_STARTUP_SCAN, &m_dwScanStartup},
               {IDS_CHECKMAIL_INTERVAL, &m_dwCheckInterval},
               {IDS_NO_DISCONNECT, &m_dwNoDisconnect},
               {IDS_STRICT_SCANNING, &m_dwScanStrict},
               {IDS_ENABLE_SOUND, &m_dwEnableSound},
               {IDS_ENABLE_POPUP_MESSAGE, &m_dwEnablePopupMsg},
               {IDS_ENABLE_EXTERNAL_CLIENT, &m_dwEnableExternal},
               {IDS_FIRST_RUN, &m_dwFirstRun}};
}

void CRegistryOptions::LoadSettings(CString key) {
    if (key.IsEmpty()) return;
    CRegistryManager registry;
    DWORD disposition = 0;
    registry.OpenRegistryKey(HKEY_CURRENT_USER, key, &disposition);
    if (disposition == REG_CREATED_NEW_KEY) {
        ResetValues();
        SaveSettings(key);
    } else {
        std::map<DWORD, CString*> texts;
        std::map<DWORD, DWORD*> numbers;
        Bind(texts, numbers);
        registry.GetStringValues(texts);
        registry.GetDwordValues(numbers);
    }
    if (!CFileName(m_strDataFile).Exist()) {
        m_strDataFile = DefaultDataFile();
        SaveSettings(key);
    }
    registry.Close();
}

void CRegistryOptions::SaveSettings(CString key) {
    if (key.IsEmpty()) return;
    CRegistryManager registry;
    if (registry.OpenRegistryKey(HKEY_CURRENT_USER, key, nullptr) != ERROR_SUCCESS) return;
    std::map<DWORD, CString*> texts;
    std::map<DWORD, DWORD*> numbers;
    Bind(texts, numbers);
    registry.SetStringValues(texts);
    registry.SetDwordValues(numbers);
    registry.Close();
}
