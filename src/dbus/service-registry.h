// The two generated files that tell the device's configuration framework of the legacy interface.
#pragma once

/// Through which both are written, in the folder of further descriptions.
inline constexpr const char* legacy_temporary_file = "/etc/wexd.d/legacy.tmp";

/// Writes both files from the ports in service. A failure is logged and leaves the previous file.
void generate_service_registry();
