// Texts for a terminal.
#pragma once

#include <string>
#include <string_view>

// The text with \xNN in place of each byte of a control character (C0, DEL and C1) and of what is not UTF-8.
std::string Printable(std::string_view text);

// As much of a printable text as so many columns hold.
std::string Cut(const std::string& text, std::size_t width);

// "voqctl: <text>" on standard error: everything that is said there comes this way.
void Complain(const std::string& text);
