#include "platform/kernel-parts.h"

#include "platform/log.h"

#include <glob.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace {

bool is_there(const char* pattern) {
  glob_t found{};
  const bool any = glob(pattern, GLOB_NOSORT, nullptr, &found) == 0;
  globfree(&found);
  return any;
}

} // namespace

void remark_missing_kernel_part(std::span<const KernelPart> parts) {
  const int saved_errno = errno;
  const auto missing = std::ranges::find_if(parts, [](const KernelPart& part) {
    return !is_there(part.path) && !(part.instead != nullptr && is_there(part.instead));
  });
  if (missing != parts.end()) {
    log_remark(std::string("no ") + missing->path + ": the kernel lacks " + missing->option);
  }
  errno = saved_errno;
}
