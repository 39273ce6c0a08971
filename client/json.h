// JSON as it is sent. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace voq
{

// A string with its quotes. Whatever bytes the text holds, the result is valid: what is no UTF-8 becomes U+FFFD, byte
// by byte, control characters their escapes.
void AppendJsonText(std::string& out, std::string_view text);

// Writes values one after the other and sets the commas. Nesting is the caller's: every Begin has its End.
class JsonWriter
{
public:
    JsonWriter& Begin(char bracket);  // '{' or '['
    JsonWriter& End(char bracket);    // '}' or ']'
    JsonWriter& Key(std::string_view name);
    JsonWriter& Text(std::string_view text);
    JsonWriter& Number(std::int64_t number);
    JsonWriter& Real(double number);  // null when it is not finite
    JsonWriter& Flag(bool flag);
    JsonWriter& Null();
    JsonWriter& Literal(std::string_view json);  // JSON already

    std::string Take() { return std::move(out_); }

private:
    void Separate();

    std::string out_;
    bool first_ = true;
};

}  // namespace voq
