// Callbacks of GLib's that are told what their data is.
#pragma once

#include <glib.h>

namespace callbacks {
template <typename Data>
Data* data_of(gboolean (*function)(Data* data));
} // namespace callbacks

/// The function, which takes a pointer to what the data of the source is, as a GSourceFunc.
template <auto function>
gboolean source_callback(gpointer data) {
  return function(static_cast<decltype(callbacks::data_of(function))>(data));
}
