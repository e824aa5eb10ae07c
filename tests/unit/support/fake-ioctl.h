// The C library's ioctl, replaced for the whole executable: what a device answers is the test's.
#pragma once

#include <functional>

/// Called for every ioctl; returns what that returns, with errno set. Empty: all fail with ENOTTY.
extern std::function<int(int fd, unsigned long request, void* argument)> fake_ioctl;
