// String resources of the user profiles: the registry value names, which are also the stream names of
// the settings file, and the settings file's accounts storage. Texts in library/StringTable.cpp.
#pragma once

#include "platform/WinTypes.h"

namespace tavik::lib {

// The registry root, which is the default user's base key, and the users' key under it.
constexpr UINT IDS_USER_REGISTRY_ROOT = 3400;
constexpr UINT IDS_USER_REGISTRY_USERS = 3401;

constexpr UINT IDS_USER_PROFILE_NAME = 3460;
constexpr UINT IDS_USER_PROFILE_PASSWORD = 3461;
constexpr UINT IDS_USER_DATA_FILE = 3462;
constexpr UINT IDS_USER_SETTINGS_FILE = 3463;
constexpr UINT IDS_USER_REGISTRY_LOCATION = 3464;
constexpr UINT IDS_USER_DEFAULT = 3465;
constexpr UINT IDS_USER_USE_REGISTRY = 3466;
constexpr UINT IDS_USER_PROFILE_ID = 3467;
constexpr UINT IDS_USER_ACCOUNTS = 3468;

}  // namespace tavik::lib
