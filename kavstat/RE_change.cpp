#include "RE_change.h"

RE_change change_of(RE_stat_kind kind, long long before, long long after, bool b_restarted)
{
    const auto difference =
        static_cast<long long>(static_cast<unsigned long long>(after) - static_cast<unsigned long long>(before));
    if (kind != RE_stat_kind::total) {
        return {difference == 0 ? RE_change_kind::none : RE_change_kind::moved, difference};
    }
    if (b_restarted) {
        return {after == 0 && before == 0 ? RE_change_kind::none : RE_change_kind::restarted, after};
    }
    if (after < before) {
        return {RE_change_kind::went_back, 0};
    }
    return {difference == 0 ? RE_change_kind::none : RE_change_kind::moved, difference};
}

RE_change change_of_32(RE_stat_kind kind, std::uint32_t before, std::uint32_t after, bool b_restarted)
{
    const std::uint32_t forwards = after - before;
    if (kind == RE_stat_kind::total && !b_restarted && after < before && forwards < 0x80000000U) {
        return {RE_change_kind::moved, forwards};
    }
    return change_of(kind, before, after, b_restarted);
}

double rate_of(const RE_change& change, double seconds)
{
    const bool b_known = change.kind == RE_change_kind::moved || change.kind == RE_change_kind::restarted;
    return b_known && seconds > 0 ? static_cast<double>(change.by) / seconds : 0;
}
