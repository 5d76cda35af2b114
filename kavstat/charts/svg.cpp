#include "charts/svg.h"

#include "format/text.h"
#include "format/units.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace kavstat {

namespace {

constexpr double picture_width = 900;
constexpr double plot_left = 90;
constexpr double plot_right = picture_width - 20;
constexpr double plot_top = 56;
constexpr double plot_bottom = 320;
constexpr double legend_line = 22;
constexpr double legend_column = 270;
constexpr int legend_columns = 3;

// Lines differ in colour and in dashes. As on the page.
constexpr std::array<const char*, 9> line_colors{"#0b6fae", "#c2570c", "#1a7f4b", "#8c3bb0", "#b3201d",
                                                 "#6b5a00", "#007c85", "#a02565", "#5a6472"};
constexpr std::array<const char*, 9> line_dashes{"none", "7 3", "2 2",         "9 3 2 3", "4 4",
                                                 "12 4", "2 5", "7 2 2 2 2 2", "1 3"};

// Fit for XML, whatever bytes it was.
std::string escaped_xml(const std::string& text)
{
    std::string escaped;
    for (const char letter : clean_text(text)) {
        switch (letter) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += letter;
        }
    }
    return escaped;
}

std::string number_text(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string text_of_value(double value, ChartUnit unit)
{
    switch (unit) {
    case ChartUnit::bytes:
        return size_text(value);
    case ChartUnit::bytes_per_second:
        return size_text(value) + "/s";
    case ChartUnit::count:
        return count_text(value);
    case ChartUnit::count_per_second:
        return count_text(value) + "/s";
    case ChartUnit::percent:
        return percent_text(value);
    case ChartUnit::seconds:
        return latency_text(value * 1000);
    case ChartUnit::age:
        return age_text(static_cast<long long>(std::min(value, 1e15)));
    }
    return "";
}

// Round steps between ticks: of sizes in powers of 1024, of ages in minutes, hours and days.
double tick_step(double least, ChartUnit unit)
{
    if (unit == ChartUnit::age) {
        static constexpr double steps[] = {1, 5, 10, 30, 60, 300, 600, 1800, 3600, 7200, 21600, 43200, 86400};
        const auto* const step = std::lower_bound(std::begin(steps), std::end(steps), least);
        return step != std::end(steps) ? *step : 86400 * std::ceil(least / 86400);
    }
    const bool b_size = unit == ChartUnit::bytes || unit == ChartUnit::bytes_per_second;
    const double base = b_size ? 1024 : 10;
    double step = std::pow(base, std::floor(std::log(std::max(least, b_size ? 1 : 1e-9)) / std::log(base)));
    for (const double factor : {1, 2, 5, 10, 20, 50, 100, 200, 500}) {
        if (factor < base && step * factor >= least) {
            return step * factor;
        }
    }
    return step * base;
}

class Picture
{
public:
    Picture(const Chart& chart, const ChartRows& rows, Output& output)
        : m_chart(chart), m_rows(rows.rows), m_output(output), m_longest_step(longest_step(rows.rows))
    {
        for (const ChartSeries& series : chart.series) {
            m_values.push_back(values_of(series, rows));
            for (const std::optional<double>& value : m_values.back()) {
                m_highest = std::max(m_highest, value.value_or(0));
            }
        }
        m_highest = chart.unit == ChartUnit::percent ? 100 : m_highest > 0 ? m_highest * 1.08 : 1;
        if (!m_rows.empty()) {
            m_first = m_rows.front().time;
            m_length = std::max<double>(static_cast<double>(m_rows.back().time - m_first), 1);
        }
    }

    void write(const std::string& subject)
    {
        const std::size_t lines = (m_chart.series.size() + legend_columns - 1) / legend_columns;
        const std::string height = number_text(plot_bottom + 50 + static_cast<double>(lines) * legend_line);
        const std::string width = number_text(picture_width);
        const std::string title = std::string(m_chart.title) + (subject.empty() ? "" : ", " + subject);
        add("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + width + "\" height=\"" + height +
            "\" viewBox=\"0 0 " + width + " " + height +
            "\" font-family=\"sans-serif\" font-size=\"13\" role=\"img\">\n");
        add("<title>" + escaped_xml(title) + "</title>\n");
        add("<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n");
        add_text(plot_left, 30, "start", title, "font-size=\"17\" font-weight=\"bold\" fill=\"#1b2530\"");
        add_value_axis();
        add_time_axis();
        for (std::size_t at = 0; at < m_values.size(); ++at) {
            add_line(at);
            add_legend(at);
        }
        if (m_rows.size() < 2) {
            add_text((plot_left + plot_right) / 2, (plot_top + plot_bottom) / 2, "middle", "Nothing was recorded.",
                     "fill=\"#586675\"");
        }
        add("</svg>\n");
    }

private:
    double x_of(std::int64_t time) const
    {
        return plot_left + static_cast<double>(time - m_first) / m_length * (plot_right - plot_left);
    }
    double y_of(double value) const { return plot_bottom - value / m_highest * (plot_bottom - plot_top); }

    void add(const std::string& text) { m_output.add(text); }

    void add_text(double x, double y, const char* anchor, const std::string& text, const std::string& attributes)
    {
        add("<text x=\"" + number_text(x) + "\" y=\"" + number_text(y) + "\" text-anchor=\"" + anchor + "\" " +
            attributes + ">" + escaped_xml(text) + "</text>\n");
    }

    void add_value_axis()
    {
        constexpr double most_ticks = 6;
        const double step = tick_step(m_highest / most_ticks, m_chart.unit);
        for (int place = 0; place * step <= m_highest; ++place) {
            const double value = place * step;
            const std::string y = number_text(y_of(value));
            add("<path d=\"M" + number_text(plot_left) + " " + y + "H" + number_text(plot_right) +
                "\" stroke=\"#d9dfe6\"/>\n");
            add_text(plot_left - 8, y_of(value) + 4, "end", place == 0 ? "0" : text_of_value(value, m_chart.unit),
                     "fill=\"#586675\"");
        }
    }

    void add_time_axis()
    {
        constexpr int ticks = 5;
        constexpr std::int64_t milliseconds_a_second = 1000;
        constexpr double day = 86'400'000;
        for (int place = 0; m_rows.size() > 1 && place <= ticks; ++place) {
            const auto time = m_first + static_cast<std::int64_t>(m_length * place / ticks);
            const auto seconds = static_cast<std::time_t>(time / milliseconds_a_second);
            const std::string full = date_and_time(seconds);
            const std::string text = m_length < day ? time_of_day(seconds) : full.substr(0, full.rfind(':'));
            const char* const anchor = place == 0 ? "start" : place == ticks ? "end" : "middle";
            add_text(x_of(time), plot_bottom + 20, anchor, text, "fill=\"#586675\"");
        }
    }

    // Broken where values are not known.
    void add_line(std::size_t at)
    {
        std::string path;
        bool b_pen_down = false;
        for (std::size_t row = 0; row < m_rows.size(); ++row) {
            const std::optional<double> value = m_values[at][row];
            const bool b_gap = row > 0 && m_rows[row].time - m_rows[row - 1].time > m_longest_step;
            if (!value) {
                b_pen_down = false;
                continue;
            }
            const bool b_on = b_pen_down && !b_gap;
            path += (b_on ? "L" : "M") + number_text(x_of(m_rows[row].time)) + " " + number_text(y_of(*value));
            // A value alone is a dot.
            path += b_on ? "" : "h0";
            b_pen_down = true;
        }
        if (!path.empty()) {
            add("<path d=\"" + path + "\" fill=\"none\" stroke-linecap=\"round\" stroke-width=\"1.8\" " +
                stroke_of(at) + "/>\n");
        }
    }

    void add_legend(std::size_t at)
    {
        const double x = plot_left + static_cast<double>(at % legend_columns) * legend_column;
        const std::size_t line = at / legend_columns;
        const double y = plot_bottom + 48 + static_cast<double>(line) * legend_line;
        add("<path d=\"M" + number_text(x) + " " + number_text(y) + "h30\" stroke-width=\"2.5\" " + stroke_of(at) +
            "/>\n");
        add_text(x + 38, y + 4, "start", m_chart.series[at].label, "fill=\"#1b2530\"");
    }

    static std::string stroke_of(std::size_t at)
    {
        return std::string("stroke=\"") + line_colors[at % line_colors.size()] + "\" stroke-dasharray=\"" +
               line_dashes[at % line_dashes.size()] + "\"";
    }

    const Chart& m_chart;
    const std::vector<ChartRow>& m_rows;
    Output& m_output;
    std::int64_t m_longest_step;
    std::vector<std::vector<std::optional<double>>> m_values; // by series
    double m_highest = 0;
    std::int64_t m_first = 0; // milliseconds since the epoch
    double m_length = 1;      // milliseconds
};

} // namespace

void write_svg(const Chart& chart, const ChartRows& rows, const std::string& subject, Output& output)
{
    Picture(chart, rows, output).write(subject);
}

} // namespace kavstat
