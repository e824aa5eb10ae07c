// The texts of the generated legacy files, from the ports in service.
#pragma once

#include <string>

/// Which objects and interfaces the legacy service has.
[[nodiscard]] std::string legacy_registry_text();

/// How each legacy parameter maps onto a bus property.
[[nodiscard]] std::string legacy_mapping_text();
