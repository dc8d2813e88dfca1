#include "accounts/CGlobalProfile.h"

#include "platform/Registry.h"

namespace {

CString shieldsKey(const CString& key) {
    CString path;
    path.Format("%s\\Shields", key.GetString());
    return path;
}

}  // namespace

void CGlobalProfile::LoadRegistryData(CString key) {
    CSingleLock lock(&m_csLoadRegistry, TRUE);
    const CString path = shieldsKey(key);
    CSpamBlockProfile reader;
    if (reader.OpenRegistryKey(HKEY_CURRENT_USER, path, nullptr) != ERROR_SUCCESS) return;
    reader.EnumRegistryKey(GetSpamShields(), path);
    reader.Close();
}

void CGlobalProfile::SaveRegistryData(CString key) {
    CSingleLock lock(&m_csSaveRegistry, TRUE);
    const CString path = shieldsKey(key);
    for (CSpamBlockProfile& shield : GetSpamShields()) shield.SaveRegistryData(path);
}
