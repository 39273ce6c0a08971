// A project as TOML. Pure.
#pragma once

#include <cstddef>
#include <string>

#include "client/project.h"

// TOML that voq::ParseDescription takes and that builds the same model. Registers that no description can build (of a
// port that the project lacks, without elements, too large) become comments; `skipped` counts them.
std::string WriteProjectToml(const voq::Project& project, std::size_t& skipped);

// The [[port]] table of a record, a key a line.
std::string WritePortToml(const ComInfoRecord& port);
