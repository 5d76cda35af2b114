#include "model/change.h"

namespace kavstat {

Change change_of(RE_stat_kind kind, long long before, long long after, bool b_restarted)
{
    const auto difference =
        static_cast<long long>(static_cast<unsigned long long>(after) - static_cast<unsigned long long>(before));
    if (kind != RE_stat_kind::total) {
        return {difference == 0 ? ChangeKind::none : ChangeKind::moved, difference};
    }
    if (b_restarted) {
        return {after == 0 && before == 0 ? ChangeKind::none : ChangeKind::restarted, after};
    }
    if (after < before) {
        return {ChangeKind::went_back, 0};
    }
    return {difference == 0 ? ChangeKind::none : ChangeKind::moved, difference};
}

Change change_of_32(RE_stat_kind kind, std::uint32_t before, std::uint32_t after, bool b_restarted)
{
    const std::uint32_t forwards = after - before;
    if (kind == RE_stat_kind::total && !b_restarted && after < before && forwards < 0x80000000U) {
        return {ChangeKind::moved, forwards};
    }
    return change_of(kind, before, after, b_restarted);
}

double rate_of(const Change& change, double seconds)
{
    const bool b_known = change.kind == ChangeKind::moved || change.kind == ChangeKind::restarted;
    return b_known && seconds > 0 ? static_cast<double>(change.by) / seconds : 0;
}

double saved_percent(double before, double after)
{
    return after > 0 && after < before ? (before - after) * 100 / before : 0;
}

} // namespace kavstat
