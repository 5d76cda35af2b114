#include "RE_global_view.h"

void show_global(bool)
{}
