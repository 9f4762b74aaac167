// The files that every archive's pages share; they stand in the folder assets/ and are built in.
#pragma once

#include <string_view>

namespace dl::archive
{

extern const std::string_view kStyleSheet;    // style.css
extern const std::string_view kIcon;          // icon.svg
extern const std::string_view kSearchScript;  // search.js

}  // namespace dl::archive
