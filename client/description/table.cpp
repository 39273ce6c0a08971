// Takes the keys of a table. Pure.
#include "client/description/table.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace voq
{

namespace
{

constexpr std::string_view DefaultKeys[] = {
    "area", "type", "priority", "byte_order", "big_endian", "bcd",  "unit", "scale",         "offset",      "decimals",
    "min",  "max",  "subaddr",  "flag",       "convpara",   "enum", "bits", "address_bytes", "text_swapped"};

}  // namespace

bool IsDefaultKey(std::string_view key)
{
    return std::find(std::begin(DefaultKeys), std::end(DefaultKeys), key) != std::end(DefaultKeys);
}

std::size_t LineOf(const toml::node& node)
{
    return node.source().begin.line;
}

Table::Table(const toml::node& node, Remarks& remarks, const char* what)
    : table_(node.as_table()), remarks_(remarks), line_(LineOf(node))
{
    if (table_ == nullptr) Fail(node, std::string(what) + " must be a table");
}

const toml::node* Table::Take(const char* key)
{
    taken_.insert(key);
    const bool inherits = IsDefaultKey(key);
    for (const Table* table = this; table != nullptr; table = inherits ? table->around_ : nullptr) {
        const toml::node* value = table->table_ == nullptr ? nullptr : table->table_->get(key);
        if (value != nullptr) return value;
    }
    return nullptr;
}

std::optional<std::uint32_t> Table::Number(const char* key, std::uint32_t low, std::uint32_t high)
{
    const toml::node* value = Take(key);
    if (value == nullptr) return std::nullopt;
    if (!value->is_integer()) {
        Fail(*value, std::string(key) + " must be an integer");
        return std::nullopt;
    }
    const std::int64_t number = value->as_integer()->get();
    if (number >= low && number <= high) return static_cast<std::uint32_t>(number);
    Fail(*value, std::string(key) + " " + std::to_string(number) + " is not within " + std::to_string(low) + " to " +
                     std::to_string(high));
    return std::nullopt;
}

std::optional<double> Table::Real(const char* key)
{
    const toml::node* value = Take(key);
    if (value == nullptr) return std::nullopt;
    const auto number = value->value<double>();
    if (value->is_number() && number && std::isfinite(*number)) return number;
    Fail(*value, std::string(key) + " must be a number");
    return std::nullopt;
}

std::optional<std::string> Table::Text(const char* key)
{
    const toml::node* value = Take(key);
    if (value == nullptr) return std::nullopt;
    if (value->is_string()) return value->as_string()->get();
    Fail(*value, std::string(key) + " must be a string");
    return std::nullopt;
}

std::optional<bool> Table::Bool(const char* key)
{
    const toml::node* value = Take(key);
    if (value == nullptr) return std::nullopt;
    if (value->is_boolean()) return value->as_boolean()->get();
    Fail(*value, std::string(key) + " must be true or false");
    return std::nullopt;
}

void Table::FailAt(const char* key, const std::string& text)
{
    const toml::node* value = Take(key);
    if (value == nullptr) return FailHere(std::string(key) + ": " + text);
    Fail(*value, std::string(key) + ": " + text);
}

void Table::FailHere(const std::string& text)
{
    good_ = false;
    remarks_.Error(line_, text);
}

void Table::Fail(const toml::node& at, const std::string& text)
{
    good_ = false;
    remarks_.Error(LineOf(at), text);
}

void Table::Finish(bool holdsDefaults)
{
    if (table_ == nullptr) return;
    for (const auto& [key, value] : *table_) {
        const std::string_view name = key.str();
        if (taken_.contains(name) || (holdsDefaults && IsDefaultKey(name))) continue;
        Fail(value, "unknown key \"" + std::string(name) + "\"");
    }
}

}  // namespace voq
