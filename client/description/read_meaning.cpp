// Reads what the values of a register mean. Pure.
#include <algorithm>
#include <charconv>

#include "client/description/reading.h"

namespace voq
{

namespace
{

std::optional<std::int64_t> NumberOf(std::string_view text)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

void ReadName(Table& table, const char* key, std::optional<std::int64_t> number, const toml::node& value,
              NamedNumbers& names)
{
    if (!number) return table.Fail(value, std::string(key) + ": names stand behind numbers, as in { 0 = \"off\" }");
    const std::string name = value.is_string() ? value.as_string()->get() : "";
    const auto bad = [](char c) { return c == '|' || static_cast<unsigned char>(c) < ' '; };
    if (name.empty() || std::any_of(name.begin(), name.end(), bad)) {
        return table.Fail(value, std::string(key) + ": a name is a text without \"|\"");
    }
    for (const NamedNumber& each : names) {
        if (each.name == name) return table.Fail(value, std::string(key) + ": there is a \"" + name + "\" already");
        if (each.number == *number)
            return table.Fail(value, std::string(key) + ": there is a " + std::to_string(*number) + " already");
    }
    names.push_back({*number, name});
}

// { 0 = "off", 1 = "on" }, or the names from 0 on as a list.
std::shared_ptr<const NamedNumbers> ReadNames(Table& table, const char* key, Reading& reading)
{
    const toml::node* value = table.Take(key);
    if (value == nullptr) return nullptr;
    if (const auto known = reading.numbers.find(value); known != reading.numbers.end()) return known->second;
    NamedNumbers names;
    const auto* array = value->as_array();
    const auto* entries = value->as_table();
    const std::size_t count = array != nullptr ? array->size() : entries != nullptr ? entries->size() : 0;
    if (count == 0 || count > MaxNames) {
        table.FailAt(key, "must be 1 to " + std::to_string(MaxNames) +
                              " names, as { 0 = \"off\", 1 = \"on\" } or [\"off\", \"on\"]");
    } else if (array != nullptr) {
        std::int64_t number = 0;
        for (const toml::node& each : *array) ReadName(table, key, number++, each, names);
    } else {
        for (const auto& [number, each] : *entries) ReadName(table, key, NumberOf(number.str()), each, names);
    }
    std::sort(names.begin(), names.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
    return reading.numbers[value] = std::make_shared<const NamedNumbers>(std::move(names));
}

void RequireBitsInside(Table& table, const NamedNumbers& names, std::size_t bytes)
{
    const auto most = static_cast<std::int64_t>(8 * std::min<std::size_t>(bytes, 8));
    for (const NamedNumber& each : names) {
        if (each.number >= 0 && each.number < most) continue;
        table.FailAt("bits",
                     "there is no bit " + std::to_string(each.number) + " (0 to " + std::to_string(most - 1) + ")");
    }
}

void ReadScale(Table& table, const Register& reg, Meaning& meaning)
{
    meaning.scale = table.Real("scale").value_or(1);
    meaning.offset = table.Real("offset").value_or(0);
    meaning.minimum = table.Real("min");
    meaning.maximum = table.Real("max");
    if (const auto decimals = table.Number("decimals", 0, 9)) meaning.decimals = *decimals;
    if (meaning.scale == 0) table.FailAt("scale", "0 makes every value the same");
    if (meaning.minimum && meaning.maximum && *meaning.minimum > *meaning.maximum) table.FailAt("min", "is above max");
    if (reg.type.kind != ValueKind::Raw) return;
    for (const char* key : {"scale", "offset", "min", "max", "decimals"}) {
        if (table.HasOwn(key)) table.FailAt(key, "a " + TypeName(reg.type) + " is no number");
    }
}

// What a text, named numbers and named bits have no use for.
void RefuseScale(Table& table, const char* beside)
{
    for (const char* key : {"scale", "offset", "decimals"}) {
        if (table.HasOwn(key)) table.FailAt(key, std::string("has no meaning beside ") + beside);
    }
}

void RequireInteger(Table& table, const Register& reg, const char* key)
{
    const ValueKind kind = reg.type.kind;
    if (IsFloating(kind) || kind == ValueKind::Raw) {
        table.FailAt(key, "is for bits and integers, not for a " + TypeName(reg.type));
    }
}

}  // namespace

Meaning ReadMeaning(Table& table, const Register& reg, Reading& reading)
{
    Meaning meaning;
    meaning.comment = table.Text("comment").value_or("");
    const toml::node* unit = table.Take("unit");
    if (unit != nullptr && unit->is_string()) meaning.unit = unit->as_string()->get();
    meaning.text = table.Number("text", 1, 0xFFFF).value_or(0);
    meaning.textSwapped = table.Bool("text_swapped").value_or(false);
    ReadScale(table, reg, meaning);
    // One table may say both; of the defaults around it, the row's own word goes first.
    const bool bitsFirst = table.HasOwn("bits") || !table.HasOwn("enum");
    meaning.bitNames = ReadNames(table, "bits", reading);
    meaning.numberNames = ReadNames(table, "enum", reading);
    if (table.HasOwn("bits") && table.HasOwn("enum")) table.FailAt("enum", "has no meaning beside bits");
    if (meaning.bitNames && meaning.numberNames) (bitsFirst ? meaning.numberNames : meaning.bitNames) = nullptr;
    if (meaning.text != 0) meaning.bitNames = meaning.numberNames = nullptr;
    if (meaning.text == 0 && !meaning.bitNames && !meaning.numberNames) return meaning;
    const char* beside = meaning.text != 0 ? "text" : meaning.bitNames ? "bits" : "enum";
    RefuseScale(table, beside);
    if (meaning.text == 0) RequireInteger(table, reg, beside);
    if (meaning.bitNames) RequireBitsInside(table, *meaning.bitNames, std::max<std::size_t>(1, reg.type.elemSize));
    if (meaning.text != 0 || meaning.bitNames) meaning.minimum = meaning.maximum = std::nullopt;
    meaning.scale = 1;
    meaning.offset = 0;
    meaning.decimals = std::nullopt;
    return meaning;
}

}  // namespace voq
