// kavstat watch.
#include "RE_stat_error.h"
#include "commands/commands.h"
#include "commands/report_error.h"
#include "watch/screen.h"
#include "watch/view.h"

#include <langinfo.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstring>
#include <thread>

namespace kavstat {

namespace {

using clock = WatchModel::clock;
using seconds = std::chrono::duration<double>;

volatile std::sig_atomic_t b_stopped = 0;

// Without restarting calls, so that whatever waits notices.
void end_at_signals()
{
    struct sigaction action
    {
    };
    action.sa_handler = [](int) { b_stopped = 1; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signal, &action, nullptr);
    }
}

void look(Source& source, WatchModel& model, const WatchView& view)
{
    // Opened anew each time: that is how an engine that was restarted is found.
    if (const int error = source.open()) {
        model.lose(error);
        return;
    }
    model.update(source.reader(), view.needs_connections(), std::time(nullptr), clock::now());
    if (source.reader().is_cut()) {
        model.lose(RE_STAT_ERR_CUT);
    }
    source.close();
}

// Sleeps, unless a signal comes.
void sleep_for(double length)
{
    const auto end = clock::now() + seconds(length);
    while (b_stopped == 0 && clock::now() < end) {
        std::this_thread::sleep_for(std::min<seconds>(end - clock::now(), seconds(0.05)));
    }
}

int watch_as_text(Source& source, WatchView& view, const WatchOptions& options)
{
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    WatchModel model;
    look(source, model, view);
    if (options.b_once && !model.is_up()) {
        report_error(Source::reason_of(model.error()));
        return EXIT_NO_STATISTICS;
    }
    // A rate takes two looks.
    do {
        sleep_for(view.interval());
        if (b_stopped != 0) {
            break;
        }
        look(source, model, view);
        for (const std::string& line : view.report(model)) {
            output.add(line);
            output.add('\n');
        }
        if (!options.b_once) {
            output.add('\n');
        }
        if (const int status = finish_output(output, sink)) {
            return status;
        }
    } while (!options.b_once);
    return EXIT_OK;
}

int watch_on_screen(Source& source, WatchView& view, WatchScreen& screen)
{
    WatchModel model;
    auto next_look = clock::now();
    while (b_stopped == 0 && !view.is_over()) {
        if (clock::now() >= next_look) {
            if (!view.is_paused()) {
                look(source, model, view);
            }
            next_look = clock::now() + std::chrono::duration_cast<clock::duration>(seconds(view.interval()));
        }
        screen.draw(view.screen(model, WatchScreen::width(), WatchScreen::height()));
        const WatchPage page = view.page();
        const double interval = view.interval();
        int key = 0;
        switch (screen.wait(seconds(next_look - clock::now()).count(), key)) {
        case WatchScreen::event::key:
            view.press(key);
            break;
        case WatchScreen::event::gone:
            return EXIT_OK;
        case WatchScreen::event::timeout:
        case WatchScreen::event::resize:
            break;
        }
        // Connections are read when their page is turned to, not an interval later.
        const bool b_more_often = view.interval() < interval;
        if ((view.page() != page && view.needs_connections()) || b_more_often) {
            next_look = clock::now();
        }
    }
    return EXIT_OK;
}

} // namespace

int run_watch(const WatchOptions& options)
{
    // For characters and nothing else: numbers keep their points.
    std::setlocale(LC_CTYPE, "");
    const bool b_unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    Source source;
    WatchView view(options.page, options.interval, b_unicode);
    end_at_signals();
    if (!options.b_once && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        WatchScreen screen;
        if (screen.is_usable()) {
            return watch_on_screen(source, view, screen);
        }
    }
    return watch_as_text(source, view, options);
}

} // namespace kavstat
