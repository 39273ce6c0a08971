// What the values of a register mean to a person: unit, scale, limits, texts, names for numbers and bits. Between the
// bytes of a range and the texts that are shown and typed. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/value_image.h"

namespace voq
{

struct NamedNumber {
    std::int64_t number;
    std::string name;
};
using NamedNumbers = std::vector<NamedNumber>;  // ascending, each number and each name once

struct Meaning {
    std::string unit;                  // of the scaled value: "bar"; may be empty
    double scale = 1;                  // scaled = number * scale + offset
    double offset = 0;                 //
    std::optional<unsigned> decimals;  // of the scaled value, 0 to 9; nothing: as many as scale and offset need
    std::optional<double> minimum;     // of the scaled value
    std::optional<double> maximum;     //
    unsigned text = 0;                 // characters that the whole range holds; 0: it is no text
    bool textSwapped = false;          // the two characters of every 16-bit word are exchanged
    std::shared_ptr<const NamedNumbers> numberNames;  // "enum"; null: none
    std::shared_ptr<const NamedNumbers> bitNames;     // bit 0 is the lowest of the element; null: none
    std::string comment;

    bool Scaled() const { return scale != 1 || offset != 0; }
};

// One element as it is shown; a text is one for the whole range.
struct ShownElement {
    std::string text;              // "21.5", "running", "pump|alarm", "2 kW pump"; never empty but for an empty text
    bool isNumber = false;         // the text is a number in the notation of JSON
    std::optional<double> number;  // the scaled value, of a named number and of bits the number itself; for plots
};

// The elements of a range, as many as `value` holds whole.
// - Text: one element. Its characters as they lie, up to the first zero byte, without spaces at the end; bytes are
//   handed on as they are, whatever they are.
// - Named number: its name; a number without a name as its digits (then isNumber).
// - Bits: the names of the bits that are set, ascending, joined by "|"; a set bit without a name as "bitN"; "-" for
// none.
// - Else the scaled number. An integer that is not scaled keeps all its digits. Decimals as `decimals` says, else as
//   many as scale and offset need, else nine significant digits. Values that are no finite number, or no packed BCD,
//   and raw ones are shown as ValueText shows them and are no numbers.
std::vector<ShownElement> ShowElements(const Meaning& meaning, const ValueCoding& coding,
                                       std::span<const std::uint8_t> value);

// An integer that is not scaled, and a scaled number, as ShowElements shows them; `scaled` is finite.
ShownElement ShowInteger(const Meaning& meaning, const ValueCoding& coding, std::int64_t number);
ShownElement ShowScaled(const Meaning& meaning, const ValueCoding& coding, double scaled);

// The texts of ShowElements separated by spaces, without the unit; at most `limit` elements, " ..." stands for the
// rest.
std::string ScaledText(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> value,
                       std::size_t limit);

// One element as a person types it, the opposite of ShowElements, not for texts:
// - a name of `numberNames`, or one of its numbers; any other number is refused with the names;
// - bit names joined by "|" (or "bitN", "-"), or a number;
// - else a scaled decimal number, taken to the nearest value of the type; a plain number of the type where nothing is
//   scaled (then 0x, too).
// Throws Error when it is none of these, does not fit the type, or is outside `minimum` to `maximum`, before or after
// it was rounded.
HostValue ParseScaled(const Meaning& meaning, const ValueCoding& coding, const std::string& text);

// The image of a range from one text an element, or from one text for the whole range when it is a text: longer than
// `meaning.text` bytes is refused, shorter is filled with zero bytes. `elements` is the width of the range. Throws
// Error, also when the number of texts is not that of the elements.
Bytes EncodeScaled(const Meaning& meaning, const ValueCoding& coding, std::size_t elements,
                   std::span<const std::string> texts);

// Throws Error when an element of an image is outside `minimum` to `maximum`: for values that come in another way than
// through EncodeScaled, which looks by itself.
void RequireWithinLimits(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> value);

}  // namespace voq
