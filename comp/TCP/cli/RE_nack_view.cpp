#include "RE_nack_view.h"

void show_nack_info(int, int)
{}
