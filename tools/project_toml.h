// A project described in TOML: ports and named registers. See docs/voqctl.md for the keys.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "client/project.h"
#include "client/register.h"

struct ProjectText {
    voq::Project project;
    std::vector<std::string> names;     // of project.registers, empty where none is given
    std::vector<voq::ValueType> types;  // of project.registers

    // Index into project.registers, or nothing.
    std::optional<std::size_t> Find(std::string_view name) const;
};

// Throws voq::Error "<file>:<line>: <text>".
ProjectText ParseProjectToml(const std::string& text, const std::string& file);
ProjectText LoadProjectToml(const std::string& file);

// TOML that ParseProjectToml takes and that builds the same model. Registers that no description can build (of a port
// that the project lacks, without elements, too large) become comments; `skipped` counts them.
std::string WriteProjectToml(const voq::Project& project, std::size_t& skipped);
