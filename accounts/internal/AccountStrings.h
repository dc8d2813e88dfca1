// String resources of the accounts: registry value names (also the stream names of the older storage
// layout), stream, storage and sub-key names. Texts in library/StringTable.cpp. Registry values are
// written in ascending order of these numbers.
#pragma once

#include "platform/WinTypes.h"

namespace tavik::lib {

// The 13 texts of an account key.
constexpr UINT IDS_ACCOUNT_NAME = 3200;
constexpr UINT IDS_REAL_NAME = 3201;
constexpr UINT IDS_EMAIL_ADDRESS = 3202;
constexpr UINT IDS_REPLY_TO = 3203;
constexpr UINT IDS_ORGANIZATION = 3204;
constexpr UINT IDS_SERVER_NAME = 3205;
constexpr UINT IDS_OUTGOING_MAIL_SERVER = 3206;
constexpr UINT IDS_INCOMING_PROTOCOL = 3207;
constexpr UINT IDS_OUTGOING_PROTOCOL = 3208;
constexpr UINT IDS_USER_NAME = 3209;
constexpr UINT IDS_USER_PASSWORD = 3210;
constexpr UINT IDS_OUTGOING_SERVER_USERNAME = 3211;
constexpr UINT IDS_OUTGOING_SERVER_PASSWORD = 3212;
// The 18 numbers.
constexpr UINT IDS_SPAM_ONLY = 3213;
constexpr UINT IDS_SECURE_LOGIN = 3214;
constexpr UINT IDS_DISABLED = 3215;
constexpr UINT IDS_AUTO_DOWNLOAD = 3216;
constexpr UINT IDS_SPAM_FILTER = 3217;
constexpr UINT IDS_FILTER_TYPE = 3218;
constexpr UINT IDS_TREE_STATE = 3219;
constexpr UINT IDS_LEAVE_COPY = 3220;
constexpr UINT IDS_SAVE_COPY = 3221;
constexpr UINT IDS_RETRIEVE_BODY = 3222;
constexpr UINT IDS_MAXIMUM_BODY_SIZE = 3223;
constexpr UINT IDS_ALWAYS_RESCAN = 3224;
constexpr UINT IDS_TIMEOUT = 3225;
constexpr UINT IDS_PROCESS_LIMIT = 3226;
constexpr UINT IDS_MAXIMUM_SCAN_LIMIT = 3227;
constexpr UINT IDS_LEAVE_COMPLETE_MESSAGES = 3228;
constexpr UINT IDS_ACCOUNT_PROFILE_ID = 3229;
constexpr UINT IDS_COMPRESS_DATABASE = 3230;
// The older storage layout's counters.
constexpr UINT IDS_MESSAGE_COUNT = 3231;
constexpr UINT IDS_MESSAGE_MODIFIED = 3232;
// The connection security of the two servers: registry values beside the 18 numbers, present only when
// not automatic.
constexpr UINT IDS_INCOMING_SECURITY = 3233;
constexpr UINT IDS_OUTGOING_SECURITY = 3234;
// Streams and storages of an account's sub-storage; the first three are shared with other records.
constexpr UINT IDS_NUMERIC_DATA = 3053;
constexpr UINT IDS_STRING_DATA = 3054;
constexpr UINT IDS_STRING_DATA_LENGTH = 3055;
constexpr UINT IDS_MESSAGE_INDEX = 3240;
constexpr UINT IDS_CACHE_FRIENDS = 3241;
constexpr UINT IDS_CACHE_ENEMIES = 3242;
constexpr UINT IDS_CACHE_FOLDERS = 3243;
constexpr UINT IDS_MESSAGES = 3244;
constexpr UINT IDS_CONTACTS = 3245;
constexpr UINT IDS_SPAMMERS = 3246;
// Rule containers (storages and sub-keys alike), and the list sub-keys ("Folders" is also the older
// layout's folder storage).
constexpr UINT IDS_AUTORESPONDER = 3250;
constexpr UINT IDS_REDIRECTOR = 3251;
constexpr UINT IDS_SHIELDS = 3252;
constexpr UINT IDS_FRIENDS = 3253;
constexpr UINT IDS_SPAM = 3254;
constexpr UINT IDS_FOLDERS = 3255;

}  // namespace tavik::lib
