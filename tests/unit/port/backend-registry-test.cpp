#include "port/backend-registry.h"

#include "port/ioport.h"

#include <gtest/gtest.h>

TEST(TheBackendRegistry, finds_a_kind_by_number_and_by_exact_name) {
  EXPECT_STREQ(backend_registry_find(BACKEND_SYSFS)->name, "sysfs");
  EXPECT_EQ(backend_registry_find("iio-interrupt")->kind, BACKEND_IIO_INTERRUPT);
  EXPECT_EQ(backend_registry_find("iio")->kind, BACKEND_IIO);
  EXPECT_EQ(backend_registry_find(11U), nullptr);
  EXPECT_EQ(backend_registry_find("GPIO"), nullptr);
  EXPECT_EQ(backend_registry_find(""), nullptr);
}

TEST(TheBackendRegistry, holds_tables_with_every_required_operation) {
  EXPECT_FALSE(port_functions_valid(PortFunctions{}));
  for (const auto& entry : backend_registry()) {
    SCOPED_TRACE(entry.name);
    const IoPortRef port = io_port_new();
    EXPECT_TRUE(port_functions_valid(*io_port_set_backend(port.get(), entry.kind)));
  }
}
