// One table of a TOML file while it is read: its keys are taken one by one, and what it does not say is taken from the
// tables around it. What is wrong goes to the remarks; the reading goes on.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "client/description/remarks.h"
#include "client/description/toml.h"

namespace voq
{

std::size_t LineOf(const toml::node& node);

class Table
{
public:
    // `what` names the table in messages: "port", "register".
    Table(const toml::node& node, Remarks& remarks, const char* what);

    // Where keys are looked up that are defaults for registers (IsDefaultKey); must outlive this table.
    void Within(const Table* around) { around_ = around; }

    // Null when neither this table nor one around it has the key.
    const toml::node* Take(const char* key);
    bool HasOwn(const char* key) const { return table_ != nullptr && table_->contains(key); }

    // Nothing when the key is absent or wrong; then Good() is false.
    std::optional<std::uint32_t> Number(const char* key, std::uint32_t low, std::uint32_t high);
    std::optional<double> Real(const char* key);
    std::optional<std::string> Text(const char* key);
    std::optional<bool> Bool(const char* key);
    // The place of a string key's value in a list of names.
    template <std::size_t N>
    std::optional<std::uint8_t> Choice(const char* key, const char* const (&names)[N]);

    void FailAt(const char* key, const std::string& text);  // "<key>: <text>" at the key's value
    void FailHere(const std::string& text);
    void Fail(const toml::node& at, const std::string& text);

    // Names the first key that nobody took. Tables around others hold defaults, too.
    void Finish(bool holdsDefaults = false);

    bool Good() const { return good_; }
    std::size_t Line() const { return line_; }

private:
    const toml::table* table_;
    const Table* around_ = nullptr;
    Remarks& remarks_;
    std::size_t line_;
    bool good_ = true;
    std::set<std::string_view> taken_;  // of constant texts
};

// Keys that a port, a station or a block may say for all its registers.
bool IsDefaultKey(std::string_view key);

template <std::size_t N>
std::optional<std::uint8_t> Table::Choice(const char* key, const char* const (&names)[N])
{
    const auto text = Text(key);
    if (!text) return std::nullopt;
    std::string all;
    for (std::size_t i = 0; i < N; ++i) {
        if (*text == names[i]) return static_cast<std::uint8_t>(i);
        all += (i == 0 ? "" : ", ") + std::string(names[i]);
    }
    FailAt(key, "\"" + *text + "\" is none of " + all);
    return std::nullopt;
}

}  // namespace voq
