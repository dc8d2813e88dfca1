// `tavik config`: the settings of the two option sets by name, read and changed through the option
// classes, which load and save their registry keys.
#pragma once

#include <string>
#include <vector>

#include "accounts/CEnvironmentOptions.h"
#include "accounts/CRegistryOptions.h"

namespace tavik::host {

struct ConfigValue {
    std::string name;   // "configuration.check-interval"
    std::string value;  // decimal for numbers
    bool number;
};

// Every setting of both sets, in a fixed order.
std::vector<ConfigValue> ConfigValues(const CRegistryOptions& configuration,
                                      const CEnvironmentOptions& environment);
// Sets one by name; numbers must be whole decimals. Throws SessionError naming the problem (an unknown
// name lists the known ones), changing nothing.
void SetConfigValue(CRegistryOptions& configuration, CEnvironmentOptions& environment,
                    const std::string& name, const std::string& value);

}  // namespace tavik::host
