// Decimal digits of a value: packed BCD, and single digits by position. Pure functions.
#pragma once

#include <cstdint>

// Decimal weights; the entries behind the tenth are 1.
inline constexpr std::int32_t Power10[16] = {1,         10,         100, 1000, 10000, 100000, 1000000, 10000000,
                                             100000000, 1000000000, 1,   1,    1,     1,      1,       1};

inline constexpr int MaxDigitSize = 4;       // largest operand size, in bytes, of the two tables below
inline constexpr int MaxDigitPosition = 16;  // positions count from 1, the units digit

// Digits of the largest value of 0 (a bit) to 4 bytes, and its top digit.
inline constexpr int maxPos[MaxDigitSize + 1] = {1, 3, 5, 8, 10};
inline constexpr int maxPosVal[MaxDigitSize + 1] = {1, 2, 6, 1, 4};

// Decodes the low 2 x nbytes nibbles; a nibble of 10 to 15 counts as such. 0 when nbytes is 0 or negative.
std::uint32_t CvtBcd2Bin(std::uint32_t value, int nbytes);

// Encodes 2 x nbytes decimal digits, at most the eight that fit. 0 when nbytes is 0 or negative.
std::uint32_t CvtBin2Bcd(std::uint32_t value, int nbytes);

// The same for `count` consecutive little-endian elements of `size` bytes (1 to 4), in place.
void CvtBcds2Bins(void* buf, int count, int size);
void CvtBins2Bcds(void* buf, int count, int size);

// The digit at a position; a position below 1 is the units digit.
std::uint32_t GetPosVal(std::uint32_t value, int pos);

// Puts `digit` in place of the digit at a position; one beyond MaxDigitPosition changes nothing.
void SetPosVal(std::uint32_t* value, int digit, int pos);

// Brings a stepped digit back into the range of its position in a value of `size` bytes (0 to MaxDigitSize).
int CalPosVal(int digit, int pos, int size);
