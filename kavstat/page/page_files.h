// The files of the page, which are part of the program, and the page with its data inside, as one file.
#pragma once

#include <span>
#include <string_view>

namespace kavstat {

struct PageFile
{
    std::string_view path; // "/page.js"
    const char* type;
    std::string_view text;
};

// Null when there is none of that path. "/" is the page itself.
const PageFile* find_page_file(std::string_view path);

// Nothing from elsewhere, and nothing inline.
inline constexpr const char* page_policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";

} // namespace kavstat
