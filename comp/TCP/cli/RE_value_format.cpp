#include "RE_value_format.h"
