// Writes JSON.
#include "client/json.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "client/utf8.h"

namespace voq
{

void AppendJsonText(std::string& out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        const std::size_t length = CharacterBytes(text);
        const auto byte = static_cast<std::uint8_t>(text[0]);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", unsigned{byte});
            out += escaped;
        } else {
            if (byte == '"' || byte == '\\') out += '\\';
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
}

void JsonWriter::Separate()
{
    if (!first_) out_ += ',';
    first_ = false;
}

JsonWriter& JsonWriter::Begin(char bracket)
{
    Separate();
    out_ += bracket;
    first_ = true;
    return *this;
}

JsonWriter& JsonWriter::End(char bracket)
{
    out_ += bracket;
    first_ = false;
    return *this;
}

JsonWriter& JsonWriter::Key(std::string_view name)
{
    Separate();
    AppendJsonText(out_, name);
    out_ += ':';
    first_ = true;  // no comma before its value
    return *this;
}

JsonWriter& JsonWriter::Text(std::string_view text)
{
    Separate();
    AppendJsonText(out_, text);
    return *this;
}

JsonWriter& JsonWriter::Number(std::int64_t number)
{
    return Literal(std::to_string(number));
}

JsonWriter& JsonWriter::Real(double number)
{
    if (!std::isfinite(number)) return Null();
    char text[40];
    const auto end = std::to_chars(text, text + sizeof text, number).ptr;
    return Literal({text, static_cast<std::size_t>(end - text)});
}

JsonWriter& JsonWriter::Flag(bool flag)
{
    return Literal(flag ? "true" : "false");
}

JsonWriter& JsonWriter::Null()
{
    return Literal("null");
}

JsonWriter& JsonWriter::Literal(std::string_view json)
{
    Separate();
    out_ += json;
    return *this;
}

}  // namespace voq
