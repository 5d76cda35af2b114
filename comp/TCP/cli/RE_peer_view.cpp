#include "RE_peer_view.h"

void show_peer(RE_mac_id*, unsigned int, int, int, RE_show_type)
{}
