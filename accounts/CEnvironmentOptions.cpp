#include "accounts/CEnvironmentOptions.h"

#include <map>

#include "accounts/CRegistryManager.h"

namespace {

// Value names, as string resources.
enum : DWORD {
    IDS_AUTO_REMOVE = 3430,
    IDS_LOG_DEBUG,
    IDS_LOG_ENABLED,
    IDS_PASSWORD_PROTECT,
    IDS_SAVE_HEADERS,
    IDS_LOG_STANDARD,
    IDS_START_MINIMIZED,
    IDS_VIEW_TYPE,
    IDS_AUTO_MAINTAIN,
    IDS_HIDE_WHEN_MINIMIZED,
    IDS_TIMEOUT_VALUE,
    IDS_MESSAGE_THRESHOLD,
    IDS_AUTO_RETRIEVE_BODY,
    IDS_HIDE_ON_COMMAND,
    IDS_SHOW_FOLDER_SIZE,
    IDS_INFORMATION_BAR,
    IDS_MAILBOX_FOLDER_BAR,
    IDS_ALWAYS_ON_TOP,
    IDS_NO_INSTANCE_PROMPT,
    IDS_LOG_FILENAME,
    IDS_TAVIK_PASSWORD,
};

}  // namespace

// The members start at their defaults.
CEnvironmentOptions::CEnvironmentOptions(CString key) {
    if (!key.IsEmpty()) LoadSettings(key);
}

void CEnvironmentOptions::ResetValues() { *this = CEnvironmentOptions(); }

template <class Texts, class Numbers>
void CEnvironmentOptions::Bind(Texts& texts, Numbers& numbers) {
    texts = {{IDS_LOG_FILENAME, &m_strLogFilename}, {IDS_TAVIK_PASSWORD, &m_strTavikPassword}};
    numbers = {{IDS_AUTO_REMOVE, &m_dwAutoRemove},
               {IDS_LOG_DEBUG, &m_dwLogDebug},
               {IDS_LOG_ENABLED, &m_dwLogEnabled},
               {IDS_PASSWORD_PROTECT, &m_dwPassProtect},
               {IDS_SAVE_HEADERS, &m_dwSaveHeaders},
               {IDS_LOG_STANDARD, &m_dwLogStandard},
               {IDS_START_MINIMIZED, &m_dwStartMinimized},
               {IDS_VIEW_TYPE, &m_dwViewType},
               {IDS_AUTO_MAINTAIN, &m_dwAutoMaintain},
               {IDS_HIDE_WHEN_MINIMIZED, &m_dwHideMinimized},
               {IDS_TIMEOUT_VALUE, &m_dwTimeoutValue},
               {IDS_MESSAGE_THRESHOLD, &m_dwThreshold},
               {IDS_AUTO_RETRIEVE_BODY, &m_dwRetrieveBody},
               {IDS_HIDE_ON_COMMAND, &m_dwHideOnCmd},
               {IDS_SHOW_FOLDER_SIZE, &m_dwShowFolderSize},
               {IDS_INFORMATION_BAR, &m_dwShowInfoView},
               {IDS_MAILBOX_FOLDER_BAR, &m_dwShowFolderView},
               {IDS_ALWAYS_ON_TOP, &m_dwAlwaysOnTop},
               {IDS_NO_INSTANCE_PROMPT, &m_dwNoInstancePrompt}};
}

void CEnvironmentOptions::LoadSettings(CString key) {
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
    registry.Close();
}

void CEnvironmentOptions::SaveSettings(CString key) {
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
