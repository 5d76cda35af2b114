# Makes a header with the files of the page as constants: cmake -DHEADER=... -DPAGE=... -DDYGRAPHS=... -P embed_page.cmake
#
# PAGE is kavstat/page, DYGRAPHS the folder of dygraph.min.js and dygraph.min.css. The scripts of the page become one that
# leaves no names in the browser's global scope.
set(scripts format data charts tables views main)

function(add_text name text)
    # A literal of characters ends at the first of these marks.
    if(text MATCHES "\\)kav_page\"")
        message(FATAL_ERROR "${name} contains the end of a literal")
    endif()
    file(APPEND ${HEADER}.new "inline constexpr std::string_view ${name} = R\"kav_page(${text})kav_page\";\n\n")
endfunction()

file(WRITE ${HEADER}.new "// The files of the page.\n#pragma once\n\n#include <string_view>\n\n")

file(READ ${PAGE}/index.html text)
add_text(embedded_index_html "${text}")

file(READ ${DYGRAPHS}/dygraph.min.css dygraph_style)
file(READ ${PAGE}/page.css text)
string(REGEX REPLACE "/\\*# sourceMappingURL=[^*]*\\*/" "" dygraph_style "${dygraph_style}")
add_text(embedded_page_css "${dygraph_style}\n${text}")

set(all_scripts)
foreach(script IN LISTS scripts)
    file(READ ${PAGE}/${script}.js text)
    string(APPEND all_scripts "${text}\n")
endforeach()
add_text(embedded_page_js "(function () {\n\"use strict\";\n\n${all_scripts}})();\n")

file(READ ${DYGRAPHS}/dygraph.min.js text)
string(REGEX REPLACE "//# sourceMappingURL=[^\n]*" "" text "${text}")
add_text(embedded_dygraph_js "${text}")

file(READ ${PAGE}/icon.svg text)
add_text(embedded_icon_svg "${text}")

file(COPY_FILE ${HEADER}.new ${HEADER} ONLY_IF_DIFFERENT)
file(REMOVE ${HEADER}.new)
