// The page's files, built into the program.
#pragma once

#include <string_view>

namespace voq::web
{

extern const std::string_view PageHtml, PageScript, PageStyle, PageIcon;

}  // namespace voq::web
