#include "RE_conn_view.h"

void show_conn(unsigned int, unsigned int, unsigned short, unsigned short, int, int, RE_show_type, bool, bool)
{}
