// A hardware description to start from.
#pragma once

namespace wexctl {

/// Prints a description whose comments tell of the GPIO lines, converters and SPI nodes of this
/// machine, each with a port to be completed.
void describe_machine();

} // namespace wexctl
