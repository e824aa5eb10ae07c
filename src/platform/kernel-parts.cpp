#include "platform/kernel-parts.h"

#include "platform/log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

void remark_missing_kernel_part(std::span<const KernelPart> parts) {
  const int saved_errno = errno;
  const auto missing = std::ranges::find_if(
      parts, [](const KernelPart& part) { return access(part.path, F_OK) != 0; });
  if (missing != parts.end()) {
    log_remark(std::string("no ") + missing->path + ": the kernel lacks " + missing->option);
  }
  errno = saved_errno;
}
