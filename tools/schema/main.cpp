// Prints the schema of the hardware description; see scripts/schema.
#include "description/schema.h"

#include <iostream>

int main() {
  std::cout << description_schema() << std::flush;
  return std::cout ? 0 : 1;
}
