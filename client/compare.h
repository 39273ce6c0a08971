// The differences of two register databases. Pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/db_check.h"

namespace voq
{

// One line a difference: file and offset, what it is, its value on both sides. Compared are the counts, the ranges with
// their offsets, links and value regions, the index and the maps, each whether sound or not; stamps, states, log-on
// counts and values are not. At most MaxFindings lines.
std::vector<std::string> CompareSnapshots(const Snapshot& a, const Snapshot& b);

}  // namespace voq
