// Numbers of the library's string resources that a host passes to the library: the registry paths it
// offers. The texts are in library/StringTable.cpp.
#pragma once

#include "platform/WinTypes.h"

// "Software\Brannick\Tavik Mail": the root, and the base key of the default user.
constexpr UINT IDS_REGISTRY_ROOT = 3400;
// "Software\Brannick\Tavik Mail\Users": one sub-key per user.
constexpr UINT IDS_REGISTRY_USERS = 3401;
// Fixed paths a host may hand to an option set or to the global shields.
constexpr UINT IDS_REGISTRY_ENVIRONMENT = 3402;
constexpr UINT IDS_REGISTRY_GLOBALSHIELD = 3403;
