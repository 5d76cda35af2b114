// The first page: what is wrong, and the figures that say how the engine does.
#include "watch/figures.h"
#include "watch/pages/pages.h"

namespace kavstat {

namespace {

class OverviewPage : public WatchPage
{
public:
    const std::string& name() const override { return m_name; }
    const WatchNeeds& needs() const override { return m_needs; }
    std::vector<WatchLine> lines(const WatchModel& model, const WatchFrame& frame) override
    {
        return figure_lines(overview_figures(model), frame.width, frame.height, frame.b_unicode);
    }
    std::vector<WatchLine> report(const WatchModel& model, bool b_unicode) override
    {
        constexpr std::size_t paper_width = 120;
        return lines(model, {paper_width, History::most_values, b_unicode});
    }
    void write_rows(const WatchModel& /*model*/, Output& /*output*/) override {}
    bool press(int /*key*/) override { return false; }
    bool is_typing() const override { return false; }
    WatchSubject selected() const override { return {}; }

private:
    std::string m_name = "overview";
    WatchNeeds m_needs;
};

} // namespace

std::unique_ptr<WatchPage> make_overview_page()
{
    return std::make_unique<OverviewPage>();
}

} // namespace kavstat
