#include "support/description-fixture.h"

#include "peers/bootblock.h"

#include <utility>

namespace {
std::vector<std::string> questions;
} // namespace

namespace fake_bootblock {

OptionalText hwid;

std::vector<std::string> take_questions() {
  return std::exchange(questions, {});
}

} // namespace fake_bootblock

void bootblock_read_param(const char* name, gchar** value) {
  questions.emplace_back(name);
  if (fake_bootblock::hwid) {
    *value = g_strdup(fake_bootblock::hwid->c_str());
  }
}

void DescriptionTest::SetUp() {
  PortTest::SetUp();
  fake_bootblock::hwid = std::nullopt;
  fake_bootblock::take_questions();
}

bool DescriptionTest::read(const std::string& text) {
  return read_raw("<config>\n" + text + "\n</config>\n");
}

bool DescriptionTest::read_raw(const std::string& text) {
  file = scratch.write("conf.xml", text);
  return conf_read_configuration(reader, file.c_str());
}

IoPort* DescriptionTest::read_port(const std::string& content) {
  EXPECT_TRUE(read("<port name=\"a\">" + content + "</port>"));
  return newest();
}

IoPort* DescriptionTest::newest() {
  return io_port_list_nth_data(0).get();
}

PortTest::Texts DescriptionTest::names() {
  const IoPortListLock lock;
  Texts all;
  for (const IoPort* port : io_port_list_get()) {
    all.push_back(port->name.value_or("-"));
  }
  return all;
}
