// kavstat watch.
#include "RE_commands.h"
#include "RE_report_error.h"
#include "RE_stat_error.h"
#include "RE_watch_screen.h"
#include "RE_watch_view.h"

#include <langinfo.h>
#include <unistd.h>

#include <chrono>
#include <clocale>
#include <csignal>
#include <cstring>
#include <thread>

namespace {

using clock = RE_watch_model::clock;
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

void look(RE_source& source, RE_watch_model& model, const RE_watch_view& view)
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

int watch_as_text(RE_source& source, RE_watch_view& view, const RE_watch_options& options)
{
    RE_descriptor_sink sink(STDOUT_FILENO);
    RE_output output(sink);
    RE_watch_model model;
    look(source, model, view);
    if (options.b_once && !model.is_up()) {
        report_error(RE_source::reason_of(model.error()));
        return RE_EXIT_NO_STATISTICS;
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
    return RE_EXIT_OK;
}

int watch_on_screen(RE_source& source, RE_watch_view& view, RE_watch_screen& screen)
{
    RE_watch_model model;
    auto next_look = clock::now();
    while (b_stopped == 0 && !view.is_over()) {
        if (clock::now() >= next_look) {
            if (!view.is_paused()) {
                look(source, model, view);
            }
            next_look = clock::now() + std::chrono::duration_cast<clock::duration>(seconds(view.interval()));
        }
        screen.draw(view.screen(model, RE_watch_screen::width(), RE_watch_screen::height()));
        const RE_watch_page page = view.page();
        const double interval = view.interval();
        int key = 0;
        switch (screen.wait(seconds(next_look - clock::now()).count(), key)) {
        case RE_watch_screen::event::key:
            view.press(key);
            break;
        case RE_watch_screen::event::gone:
            return RE_EXIT_OK;
        case RE_watch_screen::event::timeout:
        case RE_watch_screen::event::resize:
            break;
        }
        // Connections are read when their page is turned to, not an interval later.
        const bool b_more_often = view.interval() < interval;
        if ((view.page() != page && view.needs_connections()) || b_more_often) {
            next_look = clock::now();
        }
    }
    return RE_EXIT_OK;
}

} // namespace

int run_watch(const RE_watch_options& options)
{
    // For characters and nothing else: numbers keep their points.
    std::setlocale(LC_CTYPE, "");
    const bool b_unicode = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    RE_source source;
    RE_watch_view view(options.page, options.interval, b_unicode);
    end_at_signals();
    if (!options.b_once && isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        RE_watch_screen screen;
        if (screen.is_usable()) {
            return watch_on_screen(source, view, screen);
        }
    }
    return watch_as_text(source, view, options);
}
