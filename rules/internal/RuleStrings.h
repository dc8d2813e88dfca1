// String resources of the rules: registry value names (also INI keys and old-layout stream names),
// stream names and sub-key names. Texts in library/StringTable.cpp. Values are written in ascending
// order of these numbers, so each kind's texts come first in the order they are listed.
#pragma once

#include "platform/WinTypes.h"

namespace tavik::lib {

// Base rule.
constexpr UINT IDS_FILTER_NAME = 3300;
constexpr UINT IDS_MAIL_TAG = 3301;
constexpr UINT IDS_ACTION = 3302;
constexpr UINT IDS_OBJECT = 3303;
constexpr UINT IDS_ON_SUCCESS = 3304;
constexpr UINT IDS_MOVE_TO_FOLDER = 3305;
constexpr UINT IDS_TEMPORARY_FILE = 3306;
constexpr UINT IDS_ACTIVE_ON = 3307;
constexpr UINT IDS_HIT_COUNT = 3308;
constexpr UINT IDS_FILTER_ALL = 3309;
constexpr UINT IDS_USE_DATE_INTERVAL = 3310;
constexpr UINT IDS_USE_TIME_INTERVAL = 3311;
constexpr UINT IDS_FROM_DATE = 3312;
constexpr UINT IDS_TO_DATE = 3313;
constexpr UINT IDS_FROM_TIME = 3314;
constexpr UINT IDS_TO_TIME = 3315;
// Spam shield.
constexpr UINT IDS_SPAM_ACTION = 3316;
constexpr UINT IDS_COMPLAIN_TO = 3317;
constexpr UINT IDS_NOTIFY_ABUSE = 3318;
constexpr UINT IDS_NOTIFY_ADMIN = 3319;
constexpr UINT IDS_NOTIFY_WEBMASTER = 3320;
constexpr UINT IDS_NOTIFY_OTHER = 3321;
constexpr UINT IDS_ACTIVE_ENTRY = 3322;
constexpr UINT IDS_VERIFY_RETURN_ADDRESS = 3323;
constexpr UINT IDS_USE_INTELLIGENCE = 3324;
// Redirector and auto-responder.
constexpr UINT IDS_DEFAULT_SUBJECT = 3325;
constexpr UINT IDS_FORMAT_BODY_FILENAME = 3326;
constexpr UINT IDS_USE_DEFAULT_SUBJECT = 3327;
constexpr UINT IDS_USE_DEFAULT_BODY = 3328;
constexpr UINT IDS_TEXT_FILE = 3329;
constexpr UINT IDS_ATTACH_FILE = 3330;
constexpr UINT IDS_DUPLICATE_ACTION = 3331;
constexpr UINT IDS_DATE_TIME = 3332;
constexpr UINT IDS_IGNORE_DUPLICATES = 3333;
// Streams of the current storage layout; the first three are shared with other records.
constexpr UINT IDS_NUMERIC_DATA = 3053;
constexpr UINT IDS_STRING_DATA = 3054;
constexpr UINT IDS_STRING_DATA_LENGTH = 3055;
constexpr UINT IDS_BASE_STRING_DATA_LENGTH = 3340;
constexpr UINT IDS_BASE_STRING_DATA = 3341;
constexpr UINT IDS_BASE_NUMERIC_DATA = 3342;
constexpr UINT IDS_CACHED_PROCESSED_IDS = 3343;
constexpr UINT IDS_IGNORE_LIST = 3344;
constexpr UINT IDS_CACHE_RECIPIENTS = 3345;
constexpr UINT IDS_CACHE_DUPLICATES = 3348;
// Sub-keys, and sub-storages of the old layout.
constexpr UINT IDS_PROCESSED = 3350;
constexpr UINT IDS_IGNORE = 3351;
constexpr UINT IDS_RECIPIENTS = 3352;
constexpr UINT IDS_DUPLICATES = 3353;
constexpr UINT IDS_RECIPIENT = 3354;

}  // namespace tavik::lib
