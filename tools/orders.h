// A value under every byte order, side by side, for the time when nobody knows yet how a PLC lays out its values.
#pragma once

#include "tools/range_rows.h"

// Throws UsageError for a range whose elements have no byte order: bits, single bytes, raw.
void RequireOrders(const Selected& range);

// The range's name, two lines of headings, and a line for each element.
void PrintOrders(const Selected& range, ImageBytes value);

// The fields order_0 to order_3.
void AddOrders(Row& row, const Selected& range, const std::optional<ImageBytes>& value);
