#include "RE_config_view.h"

void show_config(bool)
{}

void show_kav_bypass(bool)
{}

void show_tech_support()
{}
