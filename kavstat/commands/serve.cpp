// kavstat serve.
#include "commands/commands.h"
#include "commands/report_error.h"

#include <malloc.h>
#include <unistd.h>

#include <csignal>

namespace kavstat {

int run_serve(const ServeOptions& options)
{
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
    if (!server.start(options.address, {}, options.allowed_hosts, reason)) {
        report_error("cannot listen on " + options.address.text() + ": " + reason);
        return EXIT_LISTEN;
    }
    DescriptorSink sink(STDOUT_FILENO);
    Output output(sink);
    output.add("serving http://" + server.address().text() + "\n");
    // The parent may have closed standard output.
    output.flush();

    int signal = 0;
    sigwait(&signals, &signal);
    return EXIT_OK;
}

} // namespace kavstat
