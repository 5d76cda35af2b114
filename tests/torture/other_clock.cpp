// Linked into a viewer with --wrap=time. Takes the time of day from KAV_TEST_NOW.
#include <cstdlib>
#include <ctime>

extern "C" std::time_t __wrap_time(std::time_t* result);

std::time_t __wrap_time(std::time_t* result)
{
    const char* const now = std::getenv("KAV_TEST_NOW");
    const std::time_t moment = now != nullptr ? std::strtoll(now, nullptr, 10) : 0;
    if (result != nullptr) {
        *result = moment;
    }
    return moment;
}
