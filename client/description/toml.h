// The TOML parser, compiled once into this library: nothing is to be linked.
#pragma once

#define TOML_HEADER_ONLY 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>
