#include "platform/service-manager.h"

#include "platform/handles.h"

#include <glib.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* variable = "NOTIFY_SOCKET";

// A name that begins with an at sign is in the abstract space, which has a zero there.
bool fill_address(const char* name, sockaddr_un* address, socklen_t* length) {
  const std::size_t size = strlen(name);
  if ((*name != '/' && *name != '@') || size >= sizeof address->sun_path) {
    return false;
  }
  address->sun_family = AF_UNIX;
  std::copy_n(name, size, address->sun_path);
  if (*name == '@') {
    address->sun_path[0] = '\0';
  }
  *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
  return true;
}

} // namespace

// One datagram, which a manager that does not read must not make us wait for.
void service_manager_tell(const std::string& status) {
  const char* const name = g_getenv(variable);
  sockaddr_un address{};
  socklen_t length = 0;
  if (name == nullptr || !fill_address(name, &address, &length)) {
    return;
  }
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const std::string message = "STATUS=" + status;
  sendto(fd.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
         reinterpret_cast<const sockaddr*>(&address), length);
}
