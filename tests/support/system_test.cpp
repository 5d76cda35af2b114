#include "support/system_test.h"

#include <unistd.h>

#include <cstdlib>

system_test::system_test() : m_folder(disk())
{
    static int count = 0;
    m_segment = "kav_system_test_" + std::to_string(getpid()) + "_" + std::to_string(++count);
    setenv("KAV_STAT_SEGMENT", m_segment.c_str(), 1);
    setenv("TZ", "UTC", 1);
}

system_test::~system_test()
{
    unlink(segment_path().c_str());
    unlink(own_segment_path(other_segment()).c_str());
}
