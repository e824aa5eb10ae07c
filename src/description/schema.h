// The RELAX NG schema of the hardware description, from which the man page is made too.
#pragma once

#include <string>

/// The schema of all that the vocabulary knows. What fits it means what it says; the daemon itself
/// is more lenient.
[[nodiscard]] std::string description_schema();
