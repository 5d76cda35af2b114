// kavstat serve.
#include "commands/commands.h"
#include "commands/report_error.h"
#include "page/recorded_rows.h"

#include <malloc.h>
#include <unistd.h>

#include <csignal>

namespace kavstat {

namespace {

// Reads the file that protects the server, and finds the socket. Returns an exit status.
int prepare(const ServeOptions& options, ListenAddress& address, WebConfig& web)
{
    std::string reason;
    if (options.web_config) {
        if (!read_web_config(*options.web_config, web, reason)) {
            report_error(*options.web_config + ": " + reason);
            return EXIT_USAGE;
        }
        for (const std::string& warning : warnings_about(*options.web_config, web)) {
            report_error(warning);
        }
    }
    if (!find_systemd_socket(address, reason)) {
        report_error(reason);
        return EXIT_LISTEN;
    }
    const bool b_reached = !address.is_unix() && !address.is_loopback();
    if (b_reached && !options.b_insecure && !(web.has_tls() && web.has_authentication())) {
        report_error("other machines can reach " + address.text() +
                     "; protect it by --web-config with TLS and users or client certificates, or give --insecure");
        return EXIT_USAGE;
    }
    return EXIT_OK;
}

} // namespace

int run_serve(const ServeOptions& options)
{
    ListenAddress address = options.address;
    HttpOptions http = options.http;
    http.report = report_error;
    std::optional<RuleSet> rules = read_rules_or_report(options.rules);
    if (!rules) {
        return EXIT_USAGE;
    }
    http.rules = std::move(*rules);
    if (!http.history.empty()) {
        if (const std::string reason = RecordedRows().open(http.history); !reason.empty()) {
            report_error(http.history + ": " + reason);
            return EXIT_NO_STATISTICS;
        }
    }
    if (const int status = prepare(options, address, http.web)) {
        return status;
    }
    // Blocked before the first thread is created, so that only this thread receives them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // Memory of a scrape is returned to the system after it, instead of staying with its thread.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_ARENA_MAX, 1);

    HttpServer server;
    std::string reason;
    if (!server.start(address, {}, http, reason)) {
        report_error("cannot listen on " + address.text() + ": " + reason);
        return EXIT_LISTEN;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    const std::string scheme = server.address().is_unix() ? "" : http.web.has_tls() ? "https://" : "http://";
    output.add("serving " + scheme + server.address().text() + "\n");
    // The parent may have closed standard output.
    output.flush();

    int signal = 0;
    sigwait(&signals, &signal);
    return EXIT_OK;
}

} // namespace kavstat
