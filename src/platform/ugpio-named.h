// Pins by the name of their line, on top of libugpio, which knows numbers only.
#pragma once

#include <ugpio/ugpio.h>

/// As ugpio_request; NULL with errno set when no line has that name.
ugpio_t* ugpio_request_named(const char* name);

/// As ugpio_request_one; NULL with errno set when no line has that name.
ugpio_t* ugpio_request_one_named(const char* name, unsigned int flags);
