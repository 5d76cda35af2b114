#include "RE_exec_show_stats_kav.h"

#include "RE_viewer_reader.h"

RE_stat_reader* p_statReader = nullptr;

void show_usage()
{}

int exec_show_stats_kav(int, char**)
{
    return 1;
}
