// How much a description, a file of settings or a client may say.
#pragma once

#include <cstddef>

/// Bytes of the longest name or usage that a port takes, without the final zero. All texts of all
/// ports together must fit into one message of the bus.
inline constexpr std::size_t io_port_text_limit = 65'536;
