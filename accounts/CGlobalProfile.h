// The holder of the spam shields that apply to every account. Only its shield list and its registry
// load and save matter; the host passes the key of the global-shield settings.
#pragma once

#include "accounts/CMailBoxProfile.h"

class CGlobalProfile : public CMailBoxProfile {
public:
    CGlobalProfile() = default;
    CGlobalProfile(const CGlobalProfile& other) = default;
    CGlobalProfile& operator=(const CGlobalProfile& other) = default;
    ~CGlobalProfile() override = default;

    // Appends one shield per sub-key of "<key>\Shields" (creating that key when missing).
    void LoadRegistryData(CString key) override;
    // Saves every shield under "<key>\Shields", in list order; a deleted shield removes its own key.
    void SaveRegistryData(CString key) override;
};
