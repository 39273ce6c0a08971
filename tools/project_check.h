// Looks for what a description can hold and what will not work, or is surely not meant. Pure but for the drivers, which
// are asked about the ranges.
#pragma once

#include <string>

#include "client/description/description.h"

// `userDir` is where the service will run, empty when that is not known.
void CheckDescription(const voq::Description& description, const std::string& userDir, voq::Remarks& remarks);
