// The two generated files that tell the device's configuration framework of the legacy interface.
#pragma once

/// Writes both files from the ports in service. A failure is logged and leaves the previous file.
void generate_service_registry();
