#include "fuzz-support.h"

#include "platform/handles.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

namespace {

bool is_text(std::string_view text) {
  return g_utf8_validate_len(text.data(), text.size(), nullptr);
}

bool is_text(const OptionalText& text) {
  return !text || is_text(std::string_view(*text));
}

std::atomic<bool> judging{true};

std::string_view field_of(std::span<const GLogField> fields, std::string_view key) {
  const auto found = std::ranges::find(fields, key, &GLogField::key);
  return found != fields.end() ? static_cast<const char*>(found->value) : "";
}

// Messages about bad input are the rule here, and printing them would be most of the time spent. A
// complaint of GLib's own is about how the daemon calls it.
GLogWriterOutput judge(GLogLevelFlags level, const GLogField* fields, gsize count,
                       gpointer /*user_data*/) {
  const std::span all(fields, count);
  if (judging && (level & G_LOG_LEVEL_CRITICAL) != 0
      && field_of(all, "GLIB_DOMAIN").starts_with("GLib")) {
    dprintf(STDERR_FILENO, "GLib: %s\n", field_of(all, "MESSAGE").data());
    fuzz_require(false);
  }
  return G_LOG_WRITER_HANDLED;
}

} // namespace

FuzzFile::FuzzFile(FuzzInput contents) : path_("/dev/shm/wexd-fuzz-" + std::to_string(getpid())) {
  const UniqueFd fd(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  fuzz_require(fd
               && write(fd.get(), contents.data(), contents.size())
                      == static_cast<gssize>(contents.size()));
}

FuzzFile::~FuzzFile() {
  unlink(path_.c_str());
}

void fuzz_judge_glib(bool judge) {
  judging = judge;
}

void fuzz_check_ports() {
  const IoPortListLock lock;
  for (const IoPort* port : io_port_list_get()) {
    fuzz_require(is_text(port->name) && is_text(port->input_name) && is_text(port->output_name)
                 && is_text(std::string_view(port->usage)));
  }
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  stderr = fopen("/dev/null", "w");
  g_log_set_writer_func(judge, nullptr, nullptr);
  return 0;
}
