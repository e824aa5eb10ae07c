// Names of the legacy configuration interface that its objects and its generated files share.
#pragma once

/// Interface of every port; also the bus name.
inline constexpr const char* legacy_ioport_interface =
    "com.norv.Configuration.Legacy.IOControl1.IOPort";
inline constexpr const char* legacy_input_interface =
    "com.norv.Configuration.Legacy.IOControl1.Input";
inline constexpr const char* legacy_output_interface =
    "com.norv.Configuration.Legacy.IOControl1.Output";
/// Objects are at this path, a slash and the port's number.
inline constexpr const char* legacy_base_path = "/com/norv/Configuration/Legacy/IOControl/IOPort";
/// Address of the configuration events; carries the counts.
inline constexpr const char* legacy_port_0_path =
    "/com/norv/Configuration/Legacy/IOControl/IOPort/0";
