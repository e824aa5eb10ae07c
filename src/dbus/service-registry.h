// The two generated files that tell the device's configuration framework of the legacy interface.
#pragma once

/// Through which both are written, in the folder of further descriptions.
inline constexpr const char* legacy_temporary_file = "/etc/wexd.d/legacy.tmp";

/// Brings both files in line with the ports in service; one that is so already is not written. A
/// failure is logged and leaves the previous file.
void generate_service_registry();
