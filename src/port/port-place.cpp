#include "port/port-place.h"

#include "port/ioport.h"

std::string port_place(const IoPort* port) {
  return port->origin + ": port '" + (port->name ? *port->name : "") + "' (number "
         + std::to_string(port->number) + ')';
}

std::string PortPlace::place_of(const void* port) {
  const auto* described = static_cast<const IoPort*>(port);
  return described->origin.empty() ? "" : port_place(described);
}
