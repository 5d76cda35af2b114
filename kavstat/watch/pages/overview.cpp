// The overview page: the findings with their remedies, and the main figures of the engine.
#include "format/units.h"
#include "watch/figures.h"
#include "watch/pages/pages.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kavstat {

namespace {

class OverviewPage : public WatchPage
{
public:
    const std::string& name() const override { return m_name; }
    const WatchNeeds& needs() const override { return m_needs; }
    std::vector<WatchLine> lines(const WatchModel& model, const WatchFrame& frame) override;
    std::vector<WatchLine> report(const WatchModel& model, bool b_unicode) override;
    void write_rows(const WatchModel& /*model*/, Output& /*output*/) override {}
    bool press(int key) override;
    bool is_typing() const override { return false; }
    WatchSubject selected() const override { return m_selected; }

private:
    std::vector<WatchLine> health_lines(const WatchModel& model, const WatchFrame& frame);

    std::string m_name = "overview";
    WatchNeeds m_needs;
    std::size_t m_place = 0; // of the selected finding
    // The rule and subject of the selected finding, if the user has selected one.
    std::optional<std::pair<const Rule*, std::string>> m_finding;
    bool m_b_moved = false; // by a key, since the lines were last made
    WatchSubject m_selected;
};

// Includes the findings that are left out.
std::size_t count_of(const std::vector<Finding>& findings)
{
    std::size_t count = findings.size();
    for (const Finding& finding : findings) {
        count += finding.others;
    }
    return count;
}

WatchLine healthy_line(const WatchModel& model)
{
    return {"Healthy: none of " + std::to_string(model.rules_applied()) + " rules found anything wrong"};
}

// Returns the findings around the selected one, and the whole text, meaning and remedy of that one. Findings and remedy
// use at most a fifth of the screen each; a long text of the selected finding takes more lines.
std::vector<WatchLine> OverviewPage::health_lines(const WatchModel& model, const WatchFrame& frame)
{
    const std::vector<Finding>& findings = model.findings();
    m_selected = {};
    if (findings.empty()) {
        return {healthy_line(model)};
    }
    if (m_finding && !m_b_moved) {
        const auto same = std::find_if(findings.begin(), findings.end(), [&](const Finding& finding) {
            return finding.rule == m_finding->first && finding.subject() == m_finding->second;
        });
        m_place = same != findings.end() ? static_cast<std::size_t>(same - findings.begin()) : m_place;
    }
    m_place = std::min(m_place, findings.size() - 1);
    m_selected = model.subject_of(findings[m_place]);
    if (m_b_moved) {
        m_finding = {findings[m_place].rule, findings[m_place].subject()};
        m_b_moved = false;
    }
    const std::size_t count = count_of(findings);
    const std::size_t room = std::max<std::size_t>(frame.height / 5, 1);
    const std::size_t first = m_place - std::min(m_place, room - 1);
    constexpr std::size_t indent = 4;
    std::vector<WatchLine> lines;
    for (std::size_t at = first; at < std::min(first + room, findings.size()); ++at) {
        WatchLine line = finding_line(findings[at]);
        const std::string place = std::to_string(at + 1) + "/" + std::to_string(count) + " ";
        if (findings[at].others > 0) {
            line.text += " ... and " + std::to_string(findings[at].others) + " more";
        }
        line.text = (at == m_place ? "> " : "  ") + (findings.size() > room ? place : "") + line.text;
        if (at == m_place) {
            for (WatchLine& part : wrapped_line(line, frame.width, indent)) {
                lines.push_back(std::move(part));
            }
        } else {
            lines.push_back(std::move(line));
        }
    }
    constexpr std::size_t height_for_meaning = 20;
    const Rule& rule = *findings[m_place].rule;
    const std::string text = (frame.height >= height_for_meaning ? std::string(rule.meaning) + " " : "") + rule.remedy;
    std::vector<std::string> texts = wrapped(text, frame.width > indent ? frame.width - indent : 1);
    texts.resize(std::min(texts.size(), std::max<std::size_t>(room, 2)));
    for (const std::string& one : texts) {
        lines.push_back({std::string(indent, ' ') + one});
    }
    return lines;
}

std::vector<WatchLine> OverviewPage::lines(const WatchModel& model, const WatchFrame& frame)
{
    std::vector<WatchLine> lines = health_lines(model, frame);
    lines.resize(std::min(lines.size(), frame.height));
    const std::vector<WatchFigure> figures = overview_figures(model);
    // A blank line, if all figures are still visible.
    if (frame.height > lines.size() + figures.size()) {
        lines.emplace_back();
    }
    const std::vector<WatchLine> rows =
        figure_lines(figures, frame.width, frame.height - lines.size(), frame.b_unicode);
    lines.insert(lines.end(), rows.begin(), rows.end());
    return lines;
}

std::vector<WatchLine> OverviewPage::report(const WatchModel& model, bool b_unicode)
{
    constexpr std::size_t report_width = 120;
    std::vector<WatchLine> lines;
    for (const Finding& finding : model.findings()) {
        lines.push_back(finding_line(finding));
        lines.push_back({std::string("    ") + finding.rule->remedy});
        if (finding.others > 0) {
            lines.push_back({"... and " + std::to_string(finding.others) + " more [" + finding.rule->name + "]"});
        }
    }
    if (lines.empty()) {
        lines.push_back(healthy_line(model));
    }
    lines.emplace_back();
    const std::vector<WatchFigure> figures = overview_figures(model);
    const std::vector<WatchLine> rows = figure_lines(figures, report_width, figures.size(), b_unicode);
    lines.insert(lines.end(), rows.begin(), rows.end());
    return lines;
}

bool OverviewPage::press(int key)
{
    switch (key) {
    case 'k':
    case WATCH_KEY_UP:
        m_place -= std::min<std::size_t>(m_place, 1);
        m_b_moved = true;
        return true;
    case 'j':
    case WATCH_KEY_DOWN:
        ++m_place;
        m_b_moved = true;
        return true;
    case WATCH_KEY_HOME:
        // From now on, the first finding is selected.
        m_place = 0;
        m_finding.reset();
        return true;
    default:
        return false;
    }
}

} // namespace

std::unique_ptr<WatchPage> make_overview_page()
{
    return std::make_unique<OverviewPage>();
}

} // namespace kavstat
