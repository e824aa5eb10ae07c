// Slots of hardware that has nothing to do there. A slot that may be left out is left out instead.
//
// They are static so that a table's check can tell, in builds with sanitizers too, that they exist.
#pragma once

#include "port/ioport.h"

static inline void ignore_state(IoPort* /*port*/, Level /*level*/) {}

static inline bool ignore_watch(IoPort* /*port*/) {
  return true;
}

static inline void ignore_direction(IoPort* /*port*/, Direction /*direction*/) {}

static inline void ignore_description(IoPort* /*port*/, const char* /*element*/,
                                      const char* /*key*/, const char* /*value*/) {}
