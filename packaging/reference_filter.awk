# Gives Doxygen the comments of our C++ headers, those before a declaration and those after one on its line, and the
# counters' ids: it does not take declarations from included files.
FNR == 1 && /^\/\// { print "/// @file" }
/^ *\/\/( |$)/ { sub(/\/\//, "///"); gsub(/[<>@\\#]/, "\\\\&"); print; next }
/^#include "RE_stat_counters.def"/ && FILENAME ~ /RE_stat_ids.h$/ {
    table = FILENAME
    sub(/RE_stat_ids.h$/, "RE_stat_counters.def", table)
    while ((getline line < table) > 0) {
        print line
    }
    close(table)
    next
}
{
    if (match($0, /[;,}] *\/\/ /)) {
        sub(/\/\/ /, "///< ")
    }
    print
}
