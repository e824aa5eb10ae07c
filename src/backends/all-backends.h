// The list of all kinds of port hardware: one line each, in the order of their numbers.
#pragma once

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

/// A kind of hardware: its number, what a description says of it, and the function that attaches it
/// to a port.
template <BackendKind kind, const BackendVocabulary& vocabulary, auto setup_functions>
struct Backend {};

template <typename... Each>
struct BackendList {};

using AllBackends =
    BackendList<Backend<BACKEND_VIRTUAL, virtual_vocabulary, virtual_setup_functions>,
                Backend<BACKEND_GPIO, gpio_vocabulary, libugpio_setup_functions>,
                Backend<BACKEND_SPIADC, spiadc_vocabulary, spiadc_setup_functions>,
                Backend<BACKEND_SPI, spi_vocabulary, spi_setup_functions>,
                Backend<BACKEND_IIO, iio_vocabulary, iio_setup_functions>,
                Backend<BACKEND_IIO_INTERRUPT, iio_int_vocabulary, iio_int_setup_functions>,
                Backend<BACKEND_SYSFS, sysfs_vocabulary, sysfs_setup_functions>,
                Backend<BACKEND_IOBOX, iobox_vocabulary, iobox_setup_functions>,
                Backend<BACKEND_NULL, null_vocabulary, null_setup_functions>,
                Backend<BACKEND_CHECK, check_vocabulary, check_setup_functions>,
                Backend<BACKEND_ZWAVE, zwave_vocabulary, zwave_setup_functions>>;
