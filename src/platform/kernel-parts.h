// Which option of the kernel's configuration brings what the backends use.
#pragma once

#include <array>
#include <span>

/// A place that is there only where the kernel has the option, as part of it or as a loaded module.
struct KernelPart {
  const char* path;
  const char* option;
};

inline constexpr std::array gpio_kernel_parts{KernelPart{"/sys/class/gpio", "CONFIG_GPIO_SYSFS"}};
inline constexpr std::array spi_kernel_parts{KernelPart{"/sys/bus/spi", "CONFIG_SPI"},
                                             KernelPart{"/sys/class/spidev", "CONFIG_SPI_SPIDEV"}};
inline constexpr std::array iio_kernel_parts{KernelPart{"/sys/bus/iio", "CONFIG_IIO"}};
inline constexpr std::array iio_trigger_kernel_parts{
    KernelPart{"/sys/kernel/config", "CONFIG_CONFIGFS_FS"},
    KernelPart{"/sys/kernel/config/iio", "CONFIG_IIO_CONFIGFS"},
    KernelPart{"/sys/kernel/config/iio/triggers/hrtimer", "CONFIG_IIO_HRTIMER_TRIGGER"}};

/// Has the next message of this thread followed by a line that names the first option that is
/// missing, if one is. Leaves errno as it is.
void remark_missing_kernel_part(std::span<const KernelPart> parts);
