// Measures the cost of a scrape: the real exporter serves an engine of 1,000 peers, 100,000 connections and 20,000
// applications over HTTP.
//
//   bench_kavstat [PEERS CONNECTIONS APPLICATIONS]     prints the time, size, processor time and memory of scrapes
//   bench_kavstat PEERS CONNECTIONS APPLICATIONS hold  only keeps the engine running, for valgrind and other tools
//
// Instructions of one exposition:
//   bench_kavstat 1000 100000 20000 hold &  valgrind --tool=callgrind kavstat metrics >/dev/null
// The engine's cost is its own processor time during the scrapes. It should be zero, because a scrape does not call
// the engine.
#include "support/engine_shapes.h"

#ifdef KAV_PROMETHEUS_CPP
#include <prometheus/text_serializer.h>

#include <sstream>
#endif

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;

void fill(RE_stat_writer& engine, int peers, int conns, int apps)
{
    publish_zeros(engine, peers, conns, apps, std::time(nullptr));
    for (int peer = 0; peer < peers; ++peer) {
        set_peer_figures(engine, peer, [](int id) { return 123456789LL * (id + 1); });
    }
    for (int conn = 0; conn < conns; ++conn) {
        add_conn_figures(engine, conn, [](int id) { return 1000 + id; });
    }
    for (int app = 0; app < apps; ++app) {
        add_app_figures(engine, app, [](int id) { return 123456 * (id + 1); });
    }
}

double processor_seconds(int who)
{
    rusage usage{};
    getrusage(static_cast<__rusage_who>(who), &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// User and system time of a running process, in seconds.
double processor_seconds_of(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string word;
    double ticks = 0;
    for (int field = 1; field <= 15 && file >> word; ++field) {
        ticks += field >= 14 ? std::stod(word) : 0;
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Prints the private memory and the peak of all memory, which includes the mapped part of the engine's segment.
void print_memory_of(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("RssAnon:") || line.starts_with("VmHWM:")) {
            std::printf("  %s\n", line.c_str());
        }
    }
}

// Returns the size of the answer. fields: further lines of the request's head. text: gets the answer, if not null.
std::size_t scrape(int port, const char* path, const char* fields = "", std::string* text = nullptr)
{
    const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::size_t size = 0;
    if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = std::string("GET ") + path + " HTTP/1.0\r\nHost: localhost\r\n" + fields + "\r\n";
        static char bytes[1 << 20];
        if (write(socket, request.data(), request.size()) > 0) {
            for (ssize_t count = 0; (count = read(socket, bytes, sizeof bytes)) > 0;) {
                size += static_cast<std::size_t>(count);
                if (text != nullptr) {
                    text->append(bytes, static_cast<std::size_t>(count));
                }
            }
        }
    }
    close(socket);
    return size;
}

void measure(pid_t exporter, int port, const char* path, int rounds, const char* fields = "")
{
    scrape(port, path, fields);
    std::vector<double> times;
    std::size_t size = 0;
    const double own_before = processor_seconds(RUSAGE_SELF);
    const double before = processor_seconds_of(exporter);
    for (int round = 0; round < rounds; ++round) {
        const auto start = clock_type::now();
        size = scrape(port, path, fields);
        times.push_back(std::chrono::duration<double, std::milli>(clock_type::now() - start).count());
    }
    const double after = processor_seconds_of(exporter);
    std::sort(times.begin(), times.end());
    std::printf("%s %.*s: %zu bytes, median %.1f ms, exporter's processor %.1f ms a scrape (reader's %.1f ms)\n", path,
                static_cast<int>(std::strcspn(fields, "\r")), fields, size, times[times.size() / 2],
                (after - before) * 1000 / rounds, (processor_seconds(RUSAGE_SELF) - own_before) * 1000 / rounds);
    print_memory_of(exporter);
}

#ifdef KAV_PROMETHEUS_CPP
// The samples of an answer in the text format, as prometheus-cpp keeps them. Each sample of a histogram is one of its
// own there, which only makes the serializer's work less.
std::vector<prometheus::MetricFamily> families_of(const std::string& answer)
{
    std::vector<prometheus::MetricFamily> families;
    std::istringstream lines(answer.substr(answer.find("\r\n\r\n") + 4));
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("# HELP ")) {
            const std::size_t name_end = line.find(' ', 7);
            families.push_back(
                {line.substr(7, name_end - 7), line.substr(name_end + 1), prometheus::MetricType::Gauge, {}});
        } else if (line.starts_with("# TYPE ")) {
            if (line.ends_with(" counter")) {
                families.back().type = prometheus::MetricType::Counter;
            }
        } else {
            prometheus::ClientMetric sample;
            std::size_t at = line.find_first_of("{ ");
            while (line[at] != ' ') {
                const std::size_t equal = line.find('=', at);
                const std::size_t end = line.find('"', equal + 2);
                sample.label.push_back({line.substr(at + 1, equal - at - 1), line.substr(equal + 2, end - equal - 2)});
                at = line[end + 1] == ',' ? end + 1 : end + 2;
            }
            sample.counter.value = sample.gauge.value = std::stod(line.substr(at + 1));
            families.back().metric.push_back(std::move(sample));
        }
    }
    return families;
}

void measure_prometheus_cpp(int port)
{
    std::string answer;
    scrape(port, "/metrics", "", &answer);
    const std::vector<prometheus::MetricFamily> families = families_of(answer);
    std::size_t samples = 0;
    for (const prometheus::MetricFamily& family : families) {
        samples += family.metric.size();
    }
    const prometheus::TextSerializer serializer;
    std::vector<double> times;
    std::size_t size = 0;
    for (int round = 0; round < 5; ++round) {
        const double before = processor_seconds(RUSAGE_SELF);
        size = serializer.Serialize(families).size();
        times.push_back((processor_seconds(RUSAGE_SELF) - before) * 1000);
    }
    std::sort(times.begin(), times.end());
    std::printf("prometheus-cpp's serializer, %zu samples: %zu bytes, processor %.1f ms, without making the samples\n",
                samples, size, times[times.size() / 2]);
}
#endif

} // namespace

int main(int argc, char** argv)
{
    const int peers = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int conns = argc > 2 ? std::atoi(argv[2]) : 100000;
    const int apps = argc > 3 ? std::atoi(argv[3]) : 20000;
    if (std::getenv("KAV_STAT_SEGMENT") == nullptr) {
        setenv("KAV_STAT_SEGMENT", ("kav_bench." + std::to_string(getpid())).c_str(), 1);
    }
    // The engine is a separate process, so that its processor time can be measured.
    int ready[2];
    if (pipe(ready) != 0) {
        return 1;
    }
    const pid_t engine = fork();
    if (engine == 0) {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        RE_stat_writer writer;
        fill(writer, peers, conns, apps);
        if (write(ready[1], "r", 1) != 1) {
            return 1;
        }
        int signal = 0;
        sigwait(&signals, &signal);
        writer.close();
        return 0;
    }
    char letter = 0;
    if (read(ready[0], &letter, 1) != 1) {
        return 1;
    }
    if (argc > 4) {
        std::printf("KAV_STAT_SEGMENT=%s, kill %d ends it\n", std::getenv("KAV_STAT_SEGMENT"), getpid());
        std::fflush(stdout);
        waitpid(engine, nullptr, 0);
        return 0;
    }

    int out[2];
    if (pipe(out) != 0) {
        return 1;
    }
    const pid_t exporter = fork();
    if (exporter == 0) {
        dup2(out[1], STDOUT_FILENO);
        std::string program = argv[0];
        program.replace(program.rfind('/') + 1, std::string::npos, "kavstat");
        execl(program.c_str(), program.c_str(), "serve", "--listen", "127.0.0.1:0", nullptr);
        _exit(127);
    }
    char text[256] = "";
    if (read(out[0], text, sizeof text - 1) <= 0) {
        return 1;
    }
    const int port = std::atoi(std::strrchr(text, ':') + 1);
    const double engine_before = processor_seconds_of(engine);
    measure(exporter, port, "/metrics", 50);
    std::printf("the engine's processor time in 50 scrapes: %.2f ms\n",
                (processor_seconds_of(engine) - engine_before) * 1000);
    measure(exporter, port, "/metrics", 10, "Accept-Encoding: gzip\r\n");
    measure(exporter, port, "/metrics", 10, "Accept: application/openmetrics-text\r\n");
    measure(exporter, port, "/metrics?exclude[]=created", 10, "Accept: application/openmetrics-text\r\n");
    measure(exporter, port, "/metrics", 10, "Accept: application/openmetrics-text\r\nAccept-Encoding: gzip\r\n");
#ifdef KAV_PROMETHEUS_CPP
    measure_prometheus_cpp(port);
#endif
    measure(exporter, port, "/api/v1/statistics?scope=global,peers", 20);
    measure(exporter, port, "/api/v1/statistics", 1);
    kill(exporter, SIGTERM);
    waitpid(exporter, nullptr, 0);
    kill(engine, SIGTERM);
    waitpid(engine, nullptr, 0);
    return 0;
}
