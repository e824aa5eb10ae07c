// The list of backends: one line per kind of hardware, in the order of their numbers.
#include "port/backend-registry.h"

#include "backends/check-backend.h"
#include "backends/iobox-backend.h"
#include "backends/libugpio-backend.h"
#include "backends/null-backend.h"
#include "backends/spiadc-backend.h"
#include "backends/supervised-iio-backend.h"
#include "backends/supervised-iio-interrupt-backend.h"
#include "backends/supervised-spi-backend.h"
#include "backends/sysfs-backend.h"
#include "backends/virtual-backend.h"
#include "backends/zwave-backend.h"
#include "port/ioport.h"

#include <array>

namespace {

constexpr std::array backends{
    BackendEntry{BACKEND_VIRTUAL, "virtual", virtual_setup_functions},
    BackendEntry{BACKEND_GPIO, "gpio", libugpio_setup_functions},
    BackendEntry{BACKEND_SPIADC, "spiadc", spiadc_setup_functions},
    BackendEntry{BACKEND_SPI, "spi", spi_setup_functions},
    BackendEntry{BACKEND_IIO, "iio", iio_setup_functions},
    BackendEntry{BACKEND_IIO_INTERRUPT, "iio-interrupt", iio_int_setup_functions},
    BackendEntry{BACKEND_SYSFS, "sysfs", sysfs_setup_functions},
    BackendEntry{BACKEND_IOBOX, "iobox", iobox_setup_functions},
    BackendEntry{BACKEND_NULL, "null", [](IoPort*) { return null_setup_functions(); }},
    BackendEntry{BACKEND_CHECK, "check", check_setup_functions},
    BackendEntry{BACKEND_ZWAVE, "zwave", zwave_setup_functions},
};

} // namespace

std::span<const BackendEntry> backend_registry() {
  return backends;
}
