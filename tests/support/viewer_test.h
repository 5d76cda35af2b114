// Tests of the viewer with the small engine running.
#pragma once

#include "support/small_engine.h"
#include "support/system_test.h"

class viewer_test : public system_test
{
protected:
    small_engine m_engine;
};
