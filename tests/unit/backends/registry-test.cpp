#include "support/backend-fixture.h"

#include <algorithm>
#include <set>

namespace {
using TheRegistryThatShips = BackendTest;
} // namespace

TEST_F(TheRegistryThatShips, has_the_backends_that_need_no_hardware) {
  struct Row {
    guint kind;
    const char* name;
  };
  for (const auto& row : {Row{0, "virtual"}, Row{6, "sysfs"}, Row{8, "null"}, Row{9, "check"}}) {
    SCOPED_TRACE(row.name);
    const auto* entry = backend_registry_find(row.kind);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->name, row.name);
    EXPECT_EQ(backend_registry_find(row.name), entry);
  }
}

TEST_F(TheRegistryThatShips, has_every_kind_once_in_order_and_whole) {
  std::set<std::string> names;
  guint last = 0;
  for (const auto& entry : backend_registry()) {
    SCOPED_TRACE(entry.name);
    EXPECT_TRUE(names.insert(entry.name).second);
    EXPECT_TRUE(entry.kind > last || names.size() == 1);
    last = entry.kind;
    const IoPortRef port = io_port_new();
    const auto* table = io_port_set_backend(port.get(), entry.kind);
    ASSERT_NE(table, nullptr);
    EXPECT_TRUE(port_functions_valid(*table));
    const gpointer record = port->backend_private;
    EXPECT_EQ(entry.setup_functions(port.get()), table);
    EXPECT_EQ(port->backend_private, record) << "a second call must keep the record";
    table->free(port.get());
    EXPECT_EQ(port->backend_private, nullptr);
    table->free(port.get());
  }
}
