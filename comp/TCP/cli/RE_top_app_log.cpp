#include "RE_top_app_log.h"

void show_top_app(char*, char*, bool, int)
{}
