// What the backends need of pins besides libugpio's functions: pins by the name of their line, and
// how an edge shows to a poller. Our own implementation of libugpio brings it along; to a system's
// libugpio it is added.
#pragma once

#include "platform/kernel-parts.h"

#include <glib.h>
#include <ugpio/ugpio.h>

/// What the kernel must have for any pin to be taken.
[[nodiscard]] const KernelPart& ugpio_kernel_part();

/// As ugpio_request; NULL with errno set when no line has that name.
[[nodiscard]] ugpio_t* ugpio_request_named(const char* name);

/// As ugpio_request_one; NULL with errno set when no line has that name.
[[nodiscard]] ugpio_t* ugpio_request_one_named(const char* name, unsigned int flags);

/// Whether the pin of that name, or of that number where the name is NULL, is taken through the
/// kernel's sysfs files.
[[nodiscard]] bool ugpio_goes_by_sysfs(const char* name, unsigned int number);

/// The poll condition that an edge on an open pin raises: `of_value_file`, or another one where the
/// pin's descriptor is no value file. A pin that is gone raises it, too.
[[nodiscard]] GIOCondition ugpio_edge_condition(const ugpio_t* pin, GIOCondition of_value_file);

/// Takes the edges so far off an open pin, so that only later ones raise the condition. To be
/// called before the level is read; where reading takes them, nothing is done. -1, with errno set,
/// when the pin cannot be read.
[[nodiscard]] int ugpio_take_edges(ugpio_t* pin);
