// Hardware descriptions as text, read into a list of ports on fake hardware.
#pragma once

#include "support/port-fixture.h"
#include "support/scratch.h"

#include "core/conf-reader.h"

/// What the fake boot block answers; NULL when the parameter cannot be had.
namespace fake_bootblock {
extern OptionalText hwid;
/// Names that were asked for. Clears them.
std::vector<std::string> take_questions();
} // namespace fake_bootblock

class DescriptionTest : public PortTest {
protected:
  void SetUp() override;

  /// Reads a file with that text inside its outermost element.
  bool read(const std::string& text);
  /// Reads a file with exactly that text.
  bool read_raw(const std::string& text);
  /// Reads one port with `content` inside, and returns it (the list's reference).
  IoPort* read_port(const std::string& content);
  /// The newest port of the list, or nullptr (the list's reference).
  static IoPort* newest();
  /// Names of the ports, newest first; "-" for a port without one.
  static Texts names();

  ScratchFolder scratch;
  ConfReader reader;
  std::string file;
};
