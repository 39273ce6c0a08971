// Brings a value image from the device's byte order into the host's and back: every order is its own inverse.
// Reads the port's and the panel's byte-order words; main thread.
#pragma once

#include "voq/reg_key.h"

// Order codes of the 16-bit, 32-bit and float classes: of the panel's byte-order word for a local register, else of the
// port's.
void loadByteOrders(int out[3], RegKey key);

// Reorders the `len` bytes at `buf`, which hold values of a type (OperandType) and an operand size, group by group. The
// last group may reach past `len`: the buffer must hold whole groups. Doubles and single bytes stay as they are.
void operByteOrder(void* buf, int len, int type, int size, RegKey key);

// The same under a second name.
void operBigEnd(void* buf, int len, int type, int size, RegKey key);

// Reverses the bytes of every element when the key's big-endian flag is set; nothing on a bit register.
void operBigEndEx(RegKey key, void* buf, int len);
