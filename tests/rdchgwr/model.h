// A second opinion on one change of a value image, computed another way than the service does: index maps instead of
// swaps, exact wide integers instead of wrap tests, decimal strings instead of division.
#pragma once

#include <cstdint>
#include <vector>

using Bytes = std::vector<unsigned char>;

struct ModelChange {
    unsigned operation = 0, bit = 0, type = 0, size = 0;
    bool wrap = false, bounce = false, reversed = false, bcd = false;
    unsigned orderWord = 0;
};

// Changes `image`; returns true when the direction turns. The change is within all limits.
bool ModelChg(Bytes& image, const ModelChange& change, const Bytes& operands);
