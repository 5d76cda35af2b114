#include "RE_exec_show_stats_kav.h"

int main(int argc, char** argv)
{
    return exec_show_stats_kav(argc, argv);
}
