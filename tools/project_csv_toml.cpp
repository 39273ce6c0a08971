// Tables of registers as TOML. Pure.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <tuple>

#include "tools/project_csv.h"

namespace
{

enum class Cell { Integer, Real, Text, Word, Bool, Names };  // Word: a number where it is one, else a text

struct Known {
    const char* name;
    Cell kind;
};
constexpr Known KnownColumns[] = {
    {"name", Cell::Text},       {"port", Cell::Integer},     {"station", Cell::Word},  {"area", Cell::Word},
    {"type", Cell::Text},       {"address", Cell::Integer},  {"count", Cell::Integer}, {"address_bytes", Cell::Integer},
    {"unit", Cell::Text},       {"scale", Cell::Real},       {"offset", Cell::Real},   {"decimals", Cell::Integer},
    {"min", Cell::Real},        {"max", Cell::Real},         {"text", Cell::Integer},  {"text_swapped", Cell::Bool},
    {"enum", Cell::Names},      {"bits", Cell::Names},       {"comment", Cell::Text},  {"priority", Cell::Word},
    {"byte_order", Cell::Word}, {"big_endian", Cell::Bool},  {"bcd", Cell::Bool},      {"subaddr", Cell::Integer},
    {"flag", Cell::Integer},    {"convpara", Cell::Integer},
};
constexpr const char* BlockColumns[] = {"port", "station", "area", "type"};  // said once for rows that share them

// A row's cells as TOML values, by column.
using Values = std::map<std::string, std::string>;

std::string Quoted(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
        const bool control = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
        quoted += control ? escaped : c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return quoted + "\"";
}

std::optional<std::uint64_t> Integer(std::string_view text, int base = 10)
{
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || value > INT64_MAX) return std::nullopt;
    return value;
}

// One comma in a number is its point.
std::optional<std::string> Real(std::string text)
{
    if (std::count(text.begin(), text.end(), ',') == 1) text[text.find(',')] = '.';
    double value = 0;
    const auto begin = text.data() + (text.starts_with('+') ? 1 : 0);
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (!std::isfinite(value)) return std::nullopt;
    char shortest[40];
    return std::string(shortest, std::to_chars(shortest, shortest + sizeof shortest, value).ptr);
}

std::optional<std::string> Bool(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (text == "true" || text == "1" || text == "yes" || text == "x") return "true";
    if (text == "false" || text == "0" || text == "no") return "false";
    return std::nullopt;
}

// "0=off|1=on", or "off|on" from 0 on.
std::optional<std::string> NamesOf(std::string_view text)
{
    std::string names;
    std::int64_t next = 0;
    for (bool more = true; more;) {
        const std::size_t bar = text.find('|');
        std::string_view part = text.substr(0, bar);
        const std::size_t equals = part.find('=');
        if (equals != std::string_view::npos) {
            const std::string_view number = part.substr(0, equals);
            const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), next);
            if (error != std::errc() || end != number.data() + number.size()) return std::nullopt;
            part.remove_prefix(equals + 1);
        }
        names += (names.empty() ? "" : ", ") + std::to_string(next++) + " = " + Quoted(std::string(part));
        more = bar != std::string_view::npos;
        if (more) text.remove_prefix(bar + 1);
    }
    return "{ " + names + " }";
}

std::optional<std::string> ValueOf(Cell kind, const std::string& text)
{
    switch (kind) {
        case Cell::Text:
            return Quoted(text);
        case Cell::Real:
            return Real(text);
        case Cell::Bool:
            return Bool(text);
        case Cell::Names:
            return NamesOf(text);
        default:
            break;
    }
    if (const auto number = Integer(text)) return std::to_string(*number);
    return kind == Cell::Word ? std::optional(Quoted(text)) : std::nullopt;
}

// 40001 is the first holding register: the leading digit names the area, the rest counts from 1.
bool TakeManual(std::uint64_t number, Values& values)
{
    const std::uint64_t unit = number >= 100000 ? 100000 : 10000;
    const std::uint64_t area = number / unit, rest = number % unit;
    if (rest == 0 || rest > 65536 || (area != 0 && area != 1 && area != 3 && area != 4)) return false;
    values["address"] = std::to_string(rest - 1);
    return values.emplace("area", std::to_string(area)).first->second == std::to_string(area);
}

class Importer
{
public:
    Importer(const CsvTable& table, CsvAddresses addresses, voq::Remarks& remarks)
        : table_(table), addresses_(addresses), remarks_(remarks)
    {
    }

    CsvToml Run(const TellRows& tell)
    {
        if (table_.rows.empty()) remarks_.Error(1, "the first line names the columns");
        if (table_.rows.empty()) return toml_;
        ReadHeader();
        if (remarks_.Errors() != 0) return toml_;
        for (std::size_t i = 1; i < table_.rows.size(); ++i) {
            ReadRow(table_.rows[i]);
            if (tell) tell(i, table_.rows.size() - 1);
        }
        CloseBlock();
        return std::move(toml_);
    }

private:
    void ReadHeader()
    {
        for (std::string name : table_.rows[0].cells) {
            for (char& c : name) c = c == ' ' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            const auto* known = std::find_if(std::begin(KnownColumns), std::end(KnownColumns),
                                             [&](const Known& each) { return name == each.name; });
            const bool found = known != std::end(KnownColumns);
            const bool twice = found && std::find(columns_.begin(), columns_.end(), known) != columns_.end();
            if (twice) remarks_.Error(table_.rows[0].line, "column \"" + name + "\" is there twice");
            columns_.push_back(found ? known : nullptr);
            if (!found && !name.empty()) toml_.unknown.push_back(name);
        }
        const auto has = [&](std::string_view name) {
            return std::any_of(columns_.begin(), columns_.end(),
                               [&](auto* each) { return each && name == each->name; });
        };
        if (!has("address")) remarks_.Error(table_.rows[0].line, "there is no column \"address\"");
    }

    void ReadRow(const CsvRow& row)
    {
        Values values;
        const std::size_t errors = remarks_.Errors();
        for (std::size_t i = 0; i < row.cells.size(); ++i) {
            const bool known = i < columns_.size() && columns_[i] != nullptr;
            if (i >= columns_.size() && !row.cells[i].empty()) {
                return remarks_.Error(row.line, "more cells than the header has columns");
            }
            if (known && !row.cells[i].empty()) ReadCell(row, *columns_[i], row.cells[i], values);
        }
        if (values.empty() || remarks_.Errors() != errors) return;
        AddRow(row.line, values);
    }

    void ReadCell(const CsvRow& row, const Known& column, const std::string& text, Values& values)
    {
        const std::string name = column.name;
        if (name == "address" && addresses_ != CsvAddresses::Plain) {
            const auto number = Integer(text, addresses_ == CsvAddresses::Hex ? 16 : 10);
            if (number && addresses_ == CsvAddresses::Hex) return void(values[name] = std::to_string(*number));
            if (number && TakeManual(*number, values)) return;
            return remarks_.Error(
                row.line, "address: \"" + text + "\" is not " +
                              (addresses_ == CsvAddresses::Hex ? "hexadecimal" : "a manual's number of this area"));
        }
        const auto value = ValueOf(column.kind, text);
        if (!value) return remarks_.Error(row.line, name + ": \"" + text + "\" is not understood");
        if (name == "area" && values.contains("area") && values["area"] != AreaNumber(*value)) {
            return remarks_.Error(row.line, "area: " + text + " is not the address's");
        }
        if (name != "area" || !values.contains("area")) values[name] = name == "area" ? AreaNumber(*value) : *value;
    }

    // Names of areas as their numbers, so that they compare.
    static std::string AreaNumber(const std::string& value)
    {
        const std::map<std::string, std::string> numbers = {
            {"\"coils\"", "0"}, {"\"discrete\"", "1"}, {"\"input\"", "3"}, {"\"holding\"", "4"}};
        const auto found = numbers.find(value);
        return found == numbers.end() ? value : found->second;
    }

    void AddRow(std::size_t line, Values& values)
    {
        Values head;
        for (const char* name : BlockColumns) {
            if (values.contains(name)) head[name] = values[name];
        }
        if (head.contains("port")) toml_.ports.insert(head["port"]);
        if (!open_ || head != head_) OpenBlock(line, head);
        std::string text;
        for (const Known& each : KnownColumns) {
            if (head.contains(each.name) || !values.contains(each.name)) continue;
            text += std::string(text.empty() ? "" : ", ") + each.name + " = " + values[each.name];
        }
        Line(line, "  { " + text + " },");
    }

    void OpenBlock(std::size_t line, const Values& head)
    {
        CloseBlock();
        Line(line, "");
        Line(line, "[[block]]");
        for (const char* name : BlockColumns) {
            if (head.contains(name)) Line(line, std::string(name) + " = " + head.at(name));
        }
        Line(line, "registers = [");
        head_ = head;
        open_ = true;
    }

    void CloseBlock()
    {
        if (open_) Line(toml_.lines.back(), "]");
        open_ = false;
    }

    void Line(std::size_t line, const std::string& text)
    {
        toml_.text += text + "\n";
        toml_.lines.push_back(line);
    }

    const CsvTable& table_;
    CsvAddresses addresses_;
    voq::Remarks& remarks_;
    CsvToml toml_;
    std::vector<const Known*> columns_;  // null: unknown
    Values head_;
    bool open_ = false;
};

}  // namespace

CsvToml TomlOfCsv(const CsvTable& table, CsvAddresses addresses, voq::Remarks& remarks, const TellRows& tell)
{
    return Importer(table, addresses, remarks).Run(tell);
}
