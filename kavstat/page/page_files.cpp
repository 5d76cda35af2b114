#include "page/page_files.h"

#include "embedded_page.h" // made when kavstat is built

#include <algorithm>
#include <iterator>

namespace kavstat {

namespace {

constexpr PageFile page_files[] = {
    {"/", "text/html; charset=utf-8", embedded_index_html},
    {"/page.css", "text/css; charset=utf-8", embedded_page_css},
    {"/page.js", "text/javascript; charset=utf-8", embedded_page_js},
    {"/dygraph.js", "text/javascript; charset=utf-8", embedded_dygraph_js},
    {"/icon.svg", "image/svg+xml", embedded_icon_svg},
};

} // namespace

const PageFile* find_page_file(std::string_view path)
{
    const auto* const found = std::find_if(std::begin(page_files), std::end(page_files),
                                           [&](const PageFile& file) { return file.path == path; });
    return found != std::end(page_files) ? found : nullptr;
}

} // namespace kavstat
