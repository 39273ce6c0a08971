// Exchanges of bytes, words and units in a caller's buffer. Pure functions; nothing is allocated.
#pragma once

inline constexpr int MaxUnitBytes = 16;  // the largest unit that SwapMem and Reverse move

// How the device lays out a group of bytes. Each order is its own inverse.
inline constexpr int ORDER_KEEP = 0;
inline constexpr int ORDER_SWAP_BYTES = 1;     // the two bytes of every 16-bit word exchanged
inline constexpr int ORDER_REVERSE_WORDS = 2;  // the 16-bit words in reverse order
inline constexpr int ORDER_REVERSE_BYTES = 3;

void VSwap(unsigned char& a, unsigned char& b);

// Exchanges two areas of n bytes, n at most MaxUnitBytes.
void SwapMem(void* a, void* b, int n);

// Reverses the order of the len / unit units of `unit` bytes, unit 1 to MaxUnitBytes.
void Reverse(void* buf, int len, int unit);

void ReverseBytes(void* buf, int len);

// Applies one order to one group of `len` bytes; an unknown code changes nothing.
void DoByteOrder(void* buf, int code, int len);
