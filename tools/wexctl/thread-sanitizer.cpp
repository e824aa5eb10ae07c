// What the thread sanitizer takes for granted wherever the client is started, also where a shell
// hands no TSAN_OPTIONS on: GLib, which nobody built for it, synchronises the thread of the bus
// unseen.

extern "C" {
[[gnu::visibility("default")]] const char* __tsan_default_options();

const char* __tsan_default_options() {
  return "exitcode=99:ignore_noninstrumented_modules=1:atexit_sleep_ms=0";
}
}
