#include "support/streams.h"

#include <glib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdio>

StreamCapture::StreamCapture(int fd)
    : fd_(fd), saved_(dup(fd)), file_(memfd_create("stream", MFD_CLOEXEC)) {
  fflush(nullptr);
  g_assert(saved_ >= 0 && file_ >= 0 && dup2(file_, fd_) >= 0);
}

StreamCapture::~StreamCapture() {
  fflush(nullptr);
  dup2(saved_, fd_);
  close(saved_);
  close(file_);
}

std::string StreamCapture::text(bool flush) const {
  if (flush) {
    fflush(nullptr);
  }
  std::string all;
  std::array<char, 4096> part{};
  ssize_t length = 0;
  while ((length = pread(file_, part.data(), part.size(), static_cast<off_t>(all.size()))) > 0) {
    all.append(part.data(), static_cast<gsize>(length));
  }
  return all;
}
