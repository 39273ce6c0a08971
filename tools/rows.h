// Rows for other programs: JSON, one object a line, or CSV behind a line of column names. Both are an interface:
// docs/voqctl.md names the fields.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

enum class RowForm : std::uint8_t { None, Json, Csv };

struct OutputOptions {
    RowForm rows = RowForm::None;  // None: text for people
    bool iso = false;              // times in it as IsoTime
    bool raw = false;              // values in it as they lie, without scale, unit and names
};

// A value: nothing, a literal of JSON (a number, true, false), a text, or several of these.
struct Cell {
    enum class Kind : std::uint8_t { Nothing, Literal, Text, List };
    Kind kind = Kind::Nothing;
    std::string text = {};
    std::vector<Cell> list = {};

    static Cell Number(std::int64_t number) { return {Kind::Literal, std::to_string(number)}; }
    static Cell Flag(bool flag) { return {Kind::Literal, flag ? "true" : "false"}; }
    static Cell Text(std::string text) { return {Kind::Text, std::move(text)}; }
    static Cell List(std::vector<Cell> list) { return {Kind::List, {}, std::move(list)}; }
    // Microseconds, told in seconds with three decimals.
    static Cell Seconds(std::int64_t microseconds);
};

using Row = std::vector<std::pair<std::string_view, Cell>>;

// Prints rows on standard output. Control characters in texts and what is not UTF-8 become \xNN, as in all output.
class RowWriter
{
public:
    explicit RowWriter(RowForm form) : form_(form) {}
    // Every row has the names of the first one.
    void Write(const Row& row);

private:
    RowForm form_;
    bool first_ = true;
};

std::string JsonText(const Row& row);
std::string CsvText(const Row& row);

// Microseconds since 1970 as ISO 8601 in UTC: "2024-05-01T12:00:00.123Z", with three or six decimals.
std::string IsoTime(std::int64_t microseconds, int decimals = 3);
