// The TOML parser's own code.
#define TOML_IMPLEMENTATION
#include "client/description/toml.h"
