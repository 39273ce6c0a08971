// What "voqctl change" is told, as the project says what the register means: steps and limits scaled, bits by name.
// Pure.
#pragma once

#include "client/change.h"
#include "client/description/description.h"

// The change in terms of the register as it lies. `add` and `sub` stay within the description's limits, narrowed by
// those of the change itself. `raw`: operands are as they lie already. Throws Error for a limit outside the
// description's, and for a step that no number of the register's steps makes.
voq::ChangeText AsItLies(const voq::DescribedRegister& described, std::uint16_t byteOrder, voq::ChangeText change,
                         bool raw);
