// Measures what a recorded sample costs: time and bytes in the database for an engine of 1,000 peers and 20,000
// applications, and how long a moment takes to be restored. When rrdtool is installed, the same figures are stored with
// it, in one file for each peer and application. Then a day of 6 peers and 180 applications is recorded, and read for
// charts as kavstat's server does.
//
// Prints the table of docs/kavstat.md.
//
//   bench_history [PEERS APPLICATIONS]
//   bench_history day FILE                only records the day
#include "history/reader.h"
#include "history/recorded_image.h"
#include "history/recorder.h"
#include "page/recorded_rows.h"
#include "support/engine_shapes.h"
#include "support/files.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <string_view>

using namespace kavstat;

namespace {

// With the number of active connections, and of connections opened and closed.
constexpr int peer_figures = int{RE_STAT_PEER_ID_MAX} + int{RE_STAT_CONN_ID_MAX} + 1;
constexpr int app_figures = int{RE_STAT_APP_ID_MAX} + 2;

// "2,936,012"
std::string with_commas(long long number)
{
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, ",");
    }
    return text;
}

void print_row(const std::string& what, double milliseconds, const std::string& bytes = "")
{
    std::printf("| %s | %.*f ms | %s |\n", what.c_str(), milliseconds < 10 ? 1 : 0, milliseconds, bytes.c_str());
    std::fflush(stdout);
}

double milliseconds_of(const std::function<void()>& work)
{
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

void fill(RE_stat_writer& engine, int peers, int apps)
{
    publish_zeros(engine, peers, peers, apps, std::time(nullptr));
    for (int peer = 0; peer < peers; ++peer) {
        set_peer_figures(engine, peer, [](int id) { return 123456789LL * (id + 1); });
    }
    // Sums over connections come from connections.
    for (int conn = 0; conn < peers; ++conn) {
        add_conn_figures(engine, conn, [](int id) { return 1000000 + id; });
        engine.release_conn(conn);
    }
    for (int app = 0; app < apps; ++app) {
        add_app_figures(engine, app, [](int id) { return 123456 * (id + 1); });
    }
}

// Every n-th peer and application has traffic.
void move(RE_stat_writer& engine, int peers, int apps, int step)
{
    for (int peer = 0; step > 0 && peer < peers; peer += step) {
        engine.add_peer_stat(peer, RE_STAT_PEER_ID_NUM_NACKS, 1);
    }
    for (int app = 0; step > 0 && app < apps; app += step) {
        engine.add_app_stat(app, RE_STAT_APP_ID_ENCODE_IN_KBYTES, 1);
    }
}

// Of single samples, between which a recorder can record another one.
void bench_thinning(const std::string& path)
{
    RecorderOptions options;
    options.keep = *parse_keep("1h:all,1w:1d");
    options.clock = [] { return std::time(nullptr) + 2 * 86400; };
    Recorder recorder(options);
    if (!recorder.open(path).empty()) {
        return;
    }
    double spent = 0;
    double most = 0;
    int count = 0;
    for (auto result = Recorder::Thinning::unfinished; result == Recorder::Thinning::unfinished; ++count) {
        const double one = milliseconds_of([&] { result = recorder.thin([] { return true; }); });
        spent += one;
        most = std::max(most, one);
    }
    print_row("removing a sample when it is old, on average", spent / count);
    print_row("the same, at most", most);
}

void bench_rrdtool(const std::string& folder, int peers, int apps)
{
    if (std::system("command -v rrdtool >/dev/null") != 0) {
        std::puts("| rrdtool is not installed | | |");
        return;
    }
    const auto script = [&](const std::function<void(FILE*, const std::string&, int)>& line) {
        FILE* const program = popen("rrdtool - >/dev/null", "w");
        for (int at = 0; program != nullptr && at < peers + apps; ++at) {
            const bool b_peer = at < peers;
            line(program, folder + "/" + std::to_string(at) + ".rrd", b_peer ? peer_figures : app_figures);
        }
        pclose(program);
    };
    script([](FILE* program, const std::string& file, int figures) {
        std::fprintf(program, "create %s --start 1700000000 --step 10", file.c_str());
        for (int figure = 0; figure < figures; ++figure) {
            std::fprintf(program, " DS:f%d:GAUGE:20:U:U", figure);
        }
        std::fputs(" RRA:LAST:0.5:1:4\n", program);
    });
    std::time_t time = 1700000000;
    double best = 0;
    for (int sample = 0; sample < 3; ++sample) {
        time += 10;
        const double spent = milliseconds_of([&] {
            script([time](FILE* program, const std::string& file, int figures) {
                std::fprintf(program, "update %s %lld", file.c_str(), static_cast<long long>(time));
                for (int figure = 0; figure < figures; ++figure) {
                    std::fprintf(program, ":%d", 123456789 + figure);
                }
                std::fputs("\n", program);
            });
        });
        best = sample == 0 ? spent : std::min(best, spent);
    }
    print_row("the same figures with rrdtool, a file for each peer and application, the best of three", best,
              with_commas(8LL * (peers * peer_figures + apps * app_figures)));
}

// A sample every ten seconds. A third of the peers and applications has traffic at a time.
void record_day(const std::string& path)
{
    constexpr int peers = 6;
    constexpr int apps = 180;
    RE_stat_writer engine;
    fill(engine, peers, apps);
    std::unique_ptr<RE_stat_reader> live(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    auto& reader = dynamic_cast<RE_image_reader&>(*live);
    std::time_t time = std::time(nullptr) - 86400;
    RecorderOptions options;
    options.clock = [&] { return time; };
    Recorder recorder(options);
    if (reader.open() != 0 || !recorder.open(path).empty()) {
        std::puts("the day cannot be recorded");
        std::exit(1);
    }
    std::minstd_rand random;
    constexpr int samples = 8640;
    for (int sample = 0; sample < samples; ++sample, time += 10) {
        engine.add_global(RE_STAT_GLOBAL_ID_NUM_TOTAL_CONNS, 1);
        for (int peer = sample % 3; peer < peers; peer += 3) {
            for (int id = 0; id < RE_STAT_PEER_ID_MAX; ++id) {
                engine.add_peer_stat(peer, RE_stat_peer_id{id}, static_cast<long long>(random() % 1000));
            }
        }
        for (int app = sample % 3; app < apps; app += 3) {
            add_app_figures(engine, app, [&](int) { return random() % 10000; });
        }
        recorder.record(reader, true, sample * 10.0);
    }
}

void bench_charts(const std::string& path)
{
    const std::string peer = "00:00:00:00:00:00-000000000000-00000000";
    std::string reason;
    for (const auto& [scope, key] : {std::pair(ChartScope::engine, std::string()), std::pair(ChartScope::peer, peer),
                                     std::pair(ChartScope::application, peer + "/80")}) {
        for (const std::size_t points : {std::size_t{1000}, std::size_t{5000}}) {
            std::size_t rows = 0;
            double least = 0;
            for (int round = 0; round < 10; ++round) {
                const double spent = milliseconds_of([&, scope = scope, key = key] {
                    RecordedRows recorded;
                    reason = recorded.open(path);
                    rows = recorded.rows(scope, key, {}, points, reason).value_or(ChartRows()).rows.size();
                });
                least = round == 0 ? spent : std::min(least, spent);
            }
            print_row(std::to_string(rows) + " rows of a day for charts of the " + word_of(scope), least);
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string_view(argv[1]) == "day") {
        use_own_segment();
        record_day(argv[2]);
        return 0;
    }
    const int peers = argc > 2 ? std::atoi(argv[1]) : 1000;
    const int apps = argc > 2 ? std::atoi(argv[2]) : 20000;
    use_own_segment();
    const scratch_folder folder(disk());
    const std::string path = folder.file("history.db");
    RE_stat_writer engine;
    fill(engine, peers, apps);
    std::unique_ptr<RE_stat_reader> live(RE_stat_reader::create(RE_STAT_READER_SHM, nullptr));
    auto* const reader = dynamic_cast<RE_image_reader*>(live.get());
    if (reader == nullptr || reader->open() != 0) {
        std::puts("no engine to be read");
        return 1;
    }
    std::puts("| | time | bytes |\n| --- | --- | --- |");
    double seconds = 0;
    for (const auto& [what, step] :
         {std::pair("first sample", 0), std::pair("a sample in which everything moved", 1),
          std::pair("a sample in which a tenth moved", 10), std::pair("a sample in which nothing moved", 0)}) {
        constexpr int samples = 10;
        const int rounds = seconds == 0 ? 1 : samples;
        const auto size = static_cast<long long>(seconds == 0 ? 0 : std::filesystem::file_size(path));
        double spent = 0;
        Recorder recorder({});
        if (const std::string reason = recorder.open(path); !reason.empty()) {
            std::puts(reason.c_str());
            return 1;
        }
        // What a recorder reads at its start is not a sample's cost.
        if (seconds > 0) {
            recorder.record(*reader, true, seconds += 10);
        }
        for (int round = 0; round < rounds; ++round) {
            move(engine, peers, apps, step);
            spent += milliseconds_of([&] { recorder.record(*reader, true, seconds += 10); });
        }
        recorder.close();
        const auto grown = static_cast<long long>(std::filesystem::file_size(path)) - size;
        print_row(what, spent / rounds, with_commas(grown / rounds));
    }
    Database database;
    if (!open_history(database, path).empty()) {
        return 1;
    }
    HistoryReader history(database);
    double spent = 0;
    long long restored = 0;
    for (const HistorySample& sample : history.samples({})) {
        spent += milliseconds_of([&] {
            const std::optional<RecordedMoment> moment = history.restore(sample);
            RecordedReader image(*moment);
            image.open();
            restored += static_cast<long long>(take_snapshot(image, 0).apps.size());
        });
    }
    const auto count = static_cast<long long>(history.samples({}).size());
    print_row("restoring a moment of " + with_commas(restored / count) + " applications, on average",
              spent / static_cast<double>(count));
    database.close();
    bench_thinning(path);
    bench_rrdtool(folder.path(), peers, apps);
    live.reset();
    engine.close();
    const std::string day = folder.file("day.db");
    record_day(day);
    bench_charts(day);
    return 0;
}
