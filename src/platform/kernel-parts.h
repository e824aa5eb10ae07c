// Which option of the kernel's configuration brings what the backends use.
#pragma once

#include <array>
#include <span>

/// A place that is there only where the kernel has the option, as part of it or as a loaded module.
/// Where it is not, another place may do instead. Either may be a shell's pattern of paths.
struct KernelPart {
  const char* path;
  const char* option;
  const char* instead = nullptr;
};

inline constexpr KernelPart gpio_sysfs_part{"/sys/class/gpio", "CONFIG_GPIO_SYSFS"};
inline constexpr KernelPart gpio_chips_part{"/dev/gpiochip*", "CONFIG_GPIO_CDEV"};
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
