// Helpers shared by the rule tests: a base rule with its protected operations in reach, named rules
// with defaults, local times, and the eight texts of a rule in one line.
#pragma once

#include <string>

#include "platform/CTime.h"
#include "rules/CAutoResponderProfile.h"
#include "rules/CBaseFilter.h"
#include "rules/CForwardMailProfile.h"
#include "rules/CSpamBlockProfile.h"

namespace tavik::test {

class BaseProbe : public CBaseFilter {
public:
    using CBaseFilter::ImportFromIni;
    using CBaseFilter::LoadRegistryData;
    using CBaseFilter::ParseSetDate;
    using CBaseFilter::ParseSetTime;
    using CBaseFilter::RandomString;
    using CBaseFilter::ReadStorageData;
    using CBaseFilter::SaveRegistryData;
    using CBaseFilter::SaveStorageData;
};

inline CTime LocalTime(int year, int month, int day, int hour, int minute, int second) {
    return CTime(year, month, day, hour, minute, second);
}

// A rule of kind T with its defaults and the given name.
template <class T>
T Named(const char* name) {
    T rule;
    rule.ResetValues();
    CString n, tag, action, object, success, activeOn;
    DWORD all = 0, useDate = 0, useTime = 0;
    rule.GetFilterData(n, tag, action, object, success, activeOn, all, useDate, useTime);
    rule.SetFilterData(name, tag, action, object, success, activeOn, all, useDate, useTime);
    return rule;
}

// "name|mail tag|action|object|success|folder|processed-IDs file|schedule".
inline std::string Fields(const CBaseFilter& rule) {
    CString name, tag, action, object, success, activeOn;
    DWORD all = 0, useDate = 0, useTime = 0;
    rule.GetFilterData(name, tag, action, object, success, activeOn, all, useDate, useTime);
    return std::string(name) + "|" + tag.GetString() + "|" + action.GetString() + "|" + object.GetString() +
           "|" + success.GetString() + "|" + rule.GetMailBoxFolder().GetString() + "|" +
           rule.GetProcessedIDsFile().GetString() + "|" + activeOn.GetString();
}

// Every field of a rule, one per line, for whole comparisons.
std::string Describe(const CBaseFilter& rule);
std::string Describe(const CSpamBlockProfile& rule);
std::string Describe(const CForwardMailProfile& rule);
std::string Describe(const CAutoResponderProfile& rule);

// Sets every field of the rule to a value other than its default; the base part and the lists differ
// with seed.
void Fill(CBaseFilter& rule, int seed);
void Fill(CSpamBlockProfile& rule, int seed);
void Fill(CForwardMailProfile& rule, int seed);
void Fill(CAutoResponderProfile& rule, int seed);

std::string List(const CStringArray& list);

}  // namespace tavik::test
