// What the service manager shows of the daemon (`systemctl status`).
#pragma once

#include <string>

/// Tells it in one line how the daemon is. Without a service manager that listens, nothing happens.
void service_manager_tell(const std::string& status);
