// The registry of all ports: those in service, newest first, and the optional ones that wait for
// their hardware. One mutex guards both lists.
#pragma once

#include <glib.h>

#include "port/ioport.h"

#include <deque>
#include <vector>

/// Adds a port in front, with a reference of the list's own.
void io_port_list_add(IoPort* port);
/// The n-th port, 0 being the newest, if there is one.
[[nodiscard]] IoPortRef io_port_list_nth_data(guint n);
/// The raw list: no lock, no references. Only between io_port_list_lock and io_port_list_unlock.
const std::deque<IoPort*>& io_port_list_get();
guint io_port_list_length();
/// The first port of that name (NULL finds an unnamed port), if there is one.
[[nodiscard]] IoPortRef io_port_list_get_by_name(const char* name);
/// The oldest addressable ("ioport" or "virtual") port of that number, if there is one.
[[nodiscard]] IoPortRef io_port_list_get_port(gint number);
/// The same look-up among the ports that wait for their hardware.
[[nodiscard]] IoPortRef io_port_list_get_dynamic_port(gint number);
/// Every addressable port of that number, in list order.
[[nodiscard]] std::vector<IoPortRef> io_port_list_get_port_list(gint number);
guint io_port_list_nbr_inputs();
guint io_port_list_nbr_outputs();
/// Numbers of the supervisable ports, in list order.
[[nodiscard]] std::vector<gint> io_port_list_get_supervised_port_numbers();
/// Whether some port that takes part in the any-port event is active.
[[nodiscard]] bool io_port_list_get_port_any_value();
/// Sets every port up, once, at start. Optional ports that fail wait in the dynamic list; other
/// failures and duplicates are destroyed.
void io_port_list_setup();
/// Tries the waiting ports again, and those in service whose hardware is gone; returns how many
/// came into service.
gint io_port_list_setup_dynamic_ports();
/// Takes an optional port out of service; any other port is left alone.
void io_port_list_move_to_dynamic(IoPort* port);
/// Reads every port's settings from the loaded key file.
void io_port_list_read_params(bool (*read_params)(IoPort* port));
/// Starts the watch of every enabled input.
void io_port_list_set_watch();
/// Declares the events of every enabled port.
void io_port_list_declare_events();
/// Gives unnamed ports their default names.
void io_port_list_update_names();
/// Removes the first port of that name, if any, and drops the list's reference.
void io_port_list_free_by_name(const char* name);
/// Removes every port without a backend, after handing it to `report`.
void io_port_list_drop_without_backend(void (*report)(const IoPort* port));
/// Tells the observer whether there is an output-capable port.
void io_port_list_update_action_registration();
/// Destroys every port, waiting ones included, whatever its reference count.
void io_port_list_free();
void io_port_list_lock() WEXD_UNCHECKED_LOCKING;
void io_port_list_unlock() WEXD_UNCHECKED_LOCKING;

/// Scoped io_port_list_lock.
class IoPortListLock {
public:
  IoPortListLock() { io_port_list_lock(); }
  ~IoPortListLock() { io_port_list_unlock(); }
  IoPortListLock(const IoPortListLock&) = delete;
  IoPortListLock& operator=(const IoPortListLock&) = delete;
};
