// The viewer beside the small engine.
#pragma once

#include "support/small_engine.h"
#include "support/system_test.h"

class viewer_test : public system_test
{
protected:
    small_engine m_engine;
};
