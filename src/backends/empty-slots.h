// Slots of hardware that has nothing to do there. A slot that may be left out is left out instead.
#pragma once

#include "port/ioport.h"

inline void ignore_state(IoPort* /*port*/, gint /*state*/) {}

inline gboolean ignore_watch(IoPort* /*port*/) {
  return TRUE;
}

inline void ignore_direction(IoPort* /*port*/, gboolean /*input*/) {}

inline void ignore_description(IoPort* /*port*/, const char* /*element*/, const char* /*key*/,
                               const char* /*value*/) {}
