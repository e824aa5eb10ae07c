// Whom the daemon becomes once it has opened its devices.
#pragma once

/// The name of the user, and of its group.
inline constexpr const char* own_user_name = "wxd";
