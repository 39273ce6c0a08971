// UTF-8, by RFC 3629. Pure; any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace voq
{

// Bytes of the character that the text begins with, 0 when there is none.
std::size_t CharacterBytes(std::string_view text);

}  // namespace voq
