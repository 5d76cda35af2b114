#include "RE_conn_blocks.h"
