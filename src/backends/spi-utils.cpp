#include "backends/spi-utils.h"

#include <linux/spi/spidev.h>
#include <sys/ioctl.h>

bool spi_exchange(int fd, guint8 command, SpiWord* word) {
  const SpiWord sent{0x00, command};
  SpiWord received{};
  std::array<spi_ioc_transfer, 2> transfers{};
  transfers[0].tx_buf = reinterpret_cast<guintptr>(sent.data());
  transfers[0].len = sent.size();
  transfers[1].rx_buf = reinterpret_cast<guintptr>(received.data());
  transfers[1].len = received.size();
  if (ioctl(fd, SPI_IOC_MESSAGE(2), transfers.data()) < 0) {
    return false;
  }
  *word = received;
  return true;
}
