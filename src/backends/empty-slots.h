// Slots of hardware that has nothing to do there. A slot that may be left out is left out instead.
//
// They are static so that a table's check can tell, in builds with sanitizers too, that they exist.
#pragma once

#include "port/ioport.h"

static inline void ignore_state(IoPort* /*port*/, gint /*state*/) {}

static inline gboolean ignore_watch(IoPort* /*port*/) {
  return TRUE;
}

static inline void ignore_direction(IoPort* /*port*/, gboolean /*input*/) {}

static inline void ignore_description(IoPort* /*port*/, const char* /*element*/,
                                      const char* /*key*/, const char* /*value*/) {}
