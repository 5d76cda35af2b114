// kavstat watch.
#include "RE_stat_error.h"
#include "commands/commands.h"
#include "commands/playback.h"
#include "commands/report_error.h"
#include "commands/stop_signals.h"
#include "watch/screen.h"
#include "watch/view.h"

#include <langinfo.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <cstring>
#include <memory>

namespace kavstat {

namespace {

using clock = WatchModel::clock;
using duration = std::chrono::duration<double>;

// Reads an engine again and again. Its statistics stay open in between, because each opening maps every page of memory
// again.
class Looks
{
public:
    explicit Looks(const std::optional<std::string>& file) : m_file(file) {}

    void look(WatchModel& model, const WatchNeeds& needs)
    {
        // A second source is opened each time, to find an engine that was restarted.
        auto found = std::make_unique<Source>(m_file);
        if (const int error = found->open()) {
            m_source.reset();
            model.lose(error, clock::now());
            return;
        }
        const bool b_same = m_source != nullptr && (m_file || found->is_same_engine(*m_source));
        if (!b_same) {
            m_source = std::move(found);
        }
        RE_image_reader& reader = m_source->reader();
        if (!m_file) {
            reader.patience() = RE_patience::with_engine(longest_wait);
        }
        model.update(reader, needs, b_same, std::time(nullptr), clock::now());
        lose_if_cut(model);
    }

    // Reads what the page needs that has just been selected.
    void turn(WatchModel& model, const WatchNeeds& needs)
    {
        if (m_source != nullptr && model.is_up()) {
            model.read(m_source->reader(), needs, clock::now());
            lose_if_cut(model);
        }
    }

private:
    void lose_if_cut(WatchModel& model)
    {
        if (m_source->reader().is_cut()) {
            m_source.reset();
            model.lose(RE_STAT_ERR_CUT, clock::now());
        }
    }

    // For records that the engine is changing. Short enough not to be noticed when a key is pressed.
    static constexpr std::int64_t longest_wait = RE_patience::second / 20;

    std::optional<std::string> m_file;
    std::unique_ptr<Source> m_source;
};

// Text or JSON without keys and colours, for a pipe, a log or a terminal that cannot position the cursor.
int watch_as_text(Looks& looks, WatchModel& model, WatchView& view, const WatchOptions& options)
{
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    looks.look(model, view.needs());
    const bool b_once = options.b_once || options.file;
    if (b_once && !model.is_up()) {
        report_error((options.file ? *options.file + ": " : "") + Source::reason_of(model.error()));
        return EXIT_NO_STATISTICS;
    }
    do {
        // A rate needs two readings; a file has no rates.
        if (!options.file) {
            sleep_unless_stopped(view.interval());
            if (is_stopped()) {
                break;
            }
            looks.look(model, view.needs());
        }
        if (options.b_json) {
            view.write_json(model, output);
        } else {
            for (const std::string& line : view.report(model)) {
                output.add(line);
                output.add('\n');
            }
            if (!b_once) {
                output.add('\n');
            }
        }
        if (const int status = finish_output(output, sink)) {
            return status;
        }
    } while (!b_once);
    return EXIT_OK;
}

// Waits at most `seconds` for a key and passes it to `press`. Returns false when the terminal is gone.
template <typename Press>
bool take_key(WatchScreen& screen, double seconds, const Press& press)
{
    int key = 0;
    const WatchScreen::event event = screen.wait(seconds, key);
    if (event == WatchScreen::event::key) {
        press(key);
    }
    return event != WatchScreen::event::gone;
}

int watch_on_screen(Looks& looks, WatchModel& model, WatchView& view, WatchScreen& screen, bool b_file)
{
    auto next_look = clock::now();
    while (!is_stopped() && !view.is_over()) {
        if (clock::now() >= next_look) {
            // A file does not change.
            if (!view.is_paused() && !(b_file && model.is_up())) {
                looks.look(model, view.needs());
            }
            next_look = clock::now() + std::chrono::duration_cast<clock::duration>(duration(view.interval()));
        }
        screen.draw(view.screen(model, WatchScreen::width(), WatchScreen::height()));
        const WatchPage* const page = &view.page();
        const double interval = view.interval();
        if (!take_key(screen, duration(next_look - clock::now()).count(), [&](int key) { view.press(key); })) {
            return EXIT_OK;
        }
        if (&view.page() != page) {
            looks.turn(model, view.needs());
        }
        if (view.interval() < interval) {
            next_look = clock::now();
        }
    }
    return EXIT_OK;
}

// A sample once a second, or as the view says.
int play_on_screen(Playback& playback, WatchView& view, WatchScreen& screen)
{
    auto next_step = clock::now();
    while (!is_stopped() && !view.is_over()) {
        if (!playback.show(view.needs())) {
            report_error(playback.error());
            return EXIT_NO_STATISTICS;
        }
        view.set_position(playback.position());
        screen.draw(view.screen(playback.model(), WatchScreen::width(), WatchScreen::height()));
        const WatchPage* const page = &view.page();
        const auto press = [&](int key) {
            if (view.is_taking_text() || !playback.press(key)) {
                view.press(key);
            }
        };
        if (!take_key(screen, playback.is_playing() ? duration(next_step - clock::now()).count() : 3600, press)) {
            return EXIT_OK;
        }
        if (&view.page() != page) {
            playback.turn(view.needs());
        }
        if (playback.is_playing() && clock::now() >= next_step) {
            playback.move(1);
            if (playback.is_at_end()) {
                playback.pause();
            }
            next_step = clock::now() + std::chrono::duration_cast<clock::duration>(duration(view.interval()));
        }
    }
    return EXIT_OK;
}

// Every sample of a span, or one.
int play_as_text(Playback& playback, WatchView& view, const WatchOptions& options)
{
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    bool b_more = true;
    while (b_more && !is_stopped()) {
        if (!playback.show(view.needs())) {
            report_error(playback.error());
            return EXIT_NO_STATISTICS;
        }
        view.set_position(playback.position());
        b_more = options.history.is_span() && !options.b_once && playback.move(1);
        if (options.b_json) {
            view.write_json(playback.model(), output);
        } else {
            for (const std::string& line : view.report(playback.model())) {
                output.add(line);
                output.add('\n');
            }
            if (b_more) {
                output.add('\n');
            }
        }
        if (const int status = finish_output(output, sink)) {
            return status;
        }
    }
    return EXIT_OK;
}

int play(const WatchOptions& options, WatchView& view, RuleSet rules)
{
    Playback playback(std::move(rules));
    if (const std::string reason = playback.open(options.history); !reason.empty()) {
        report_error(reason);
        return EXIT_NO_STATISTICS;
    }
    end_at_signals();
    if (!options.b_once && !options.b_json && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        WatchScreen screen;
        if (screen.is_usable()) {
            return play_on_screen(playback, view, screen);
        }
    }
    return play_as_text(playback, view, options);
}

// Sets up the first page by the options. Returns false after reporting an error if the page does not have the column.
bool set_up(WatchPage& page, const WatchOptions& options)
{
    page.filter_by(options.filter);
    if (options.sort.empty()) {
        return true;
    }
    const std::vector<std::string> keys = page.order_keys();
    if (std::find(keys.begin(), keys.end(), options.sort) == keys.end()) {
        std::string all;
        for (const std::string& key : keys) {
            all += (all.empty() ? "" : ", ") + key;
        }
        report_error("--sort: the page \"" + page.name() + "\" has " +
                     (all.empty() ? "no columns" : "no column \"" + options.sort + "\", but " + all));
        return false;
    }
    page.order_by(options.sort, options.b_reverse);
    return true;
}

} // namespace

int run_watch(const WatchOptions& options)
{
    // For the character encoding only; numbers keep their decimal point.
    std::setlocale(LC_CTYPE, "");
    const bool b_unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    const std::vector<std::string> names = watch_page_names();
    const auto first = std::find(names.begin(), names.end(), options.page);
    WatchView view(first != names.end() ? static_cast<std::size_t>(first - names.begin()) : 0, options.interval,
                   b_unicode, options.history.file ? options.history.file : options.file);
    if (!set_up(view.page(), options)) {
        return EXIT_USAGE;
    }
    std::optional<RuleSet> rules = read_rules_or_report(options.rules);
    if (!rules) {
        return EXIT_USAGE;
    }
    if (options.history.file) {
        return play(options, view, std::move(*rules));
    }
    WatchModel model(std::move(*rules));
    Looks looks(options.file);
    end_at_signals();
    if (!options.b_once && !options.b_json && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        WatchScreen screen;
        if (screen.is_usable()) {
            return watch_on_screen(looks, model, view, screen, options.file.has_value());
        }
    }
    return watch_as_text(looks, model, view, options);
}

} // namespace kavstat
