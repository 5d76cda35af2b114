// Exit statuses, errors and outputs of the commands.
#include "kavstat_program.h"

#include "support/contains.h"
#include "support/demo_engine.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace {

class kavstat_command : public system_test
{
protected:
    std::string save(const std::string& name)
    {
        const program_result result = run_viewer({"save-file", path(name)});
        EXPECT_EQ(result.status, 0) << result.out;
        return path(name);
    }
    // "valid", or what the schema of `kavstat schema --of` does not allow.
    std::string validate_as(const std::string& schema, const std::string& document)
    {
        write_file(path("schema.json"), run_kavstat({"schema", "--of", schema}).out);
        write_file(path("document.json"), document);
        const program_result result = child_program("/usr/bin/python3", {KAV_TEST_FILES "/validate.py",
                                                                         path("schema.json"), path("document.json")})
                                          .finish();
        EXPECT_EQ(result.err, "");
        return result.status == 0 ? "valid" : result.out;
    }
};

const std::vector<std::vector<std::string>> printing_commands = {
    {"json"},   {"metrics"},        {"list"},     {"list", "--json"}, {"schema"}, {"watch", "--once", "-i", "0.1"},
    {"--help"}, {"json", "--help"}, {"--version"}};

} // namespace

TEST_F(kavstat_command, tells_its_version_and_its_commands)
{
    EXPECT_EQ(run_kavstat({"--version"}).out, "kavstat " KAV_VERSION "\n");
    const program_result help = run_kavstat({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char* const word :
         {"  json ", "  metrics ", "  serve ", "  watch ", "  diff ", "  list ", "  schema ", "Exit status:"}) {
        EXPECT_TRUE(contains(help.out, word)) << word;
    }
}

TEST_F(kavstat_command, refuses_mistakes_with_status_2)
{
    const std::vector<std::vector<std::string>> mistakes = {{},
                                                            {"jsn"},
                                                            {"json", "--scope", "global,peer"},
                                                            {"json", "--scope", ""},
                                                            {"json", "extra"},
                                                            {"json", "--interval", "0"},
                                                            {"json", "--interval", "1", "--file", "saved"},
                                                            {"diff", "--scope", "peer", "saved"},
                                                            {"list", "--unit", "furlongs"},
                                                            {"watch", "--interval", "0"},
                                                            {"watch", "--interval", "nan"},
                                                            {"watch", "--page", "5"},
                                                            {"watch", "--page", "peers", "--sort", "rows"},
                                                            {"serve", "--listen", "localhost"},
                                                            {"serve", "--listen", "1.2.3.4:99999"},
                                                            {"serve", "--allow-host", "example.net:80"},
                                                            {"serve", "--allow-host", ""},
                                                            {"serve", "--rules", "/no/file"},
                                                            {"diff"}};
    for (const std::vector<std::string>& arguments : mistakes) {
        const program_result result = run_kavstat(arguments);
        EXPECT_EQ(result.status, 2) << (arguments.empty() ? "" : arguments.back());
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
}

TEST_F(kavstat_command, names_the_word_that_is_wrong)
{
    const std::string help = "\nRun with --help for more information.\n";
    EXPECT_EQ(run_kavstat({"helth", "--all"}).err, "no such command: \"helth\"" + help);
    EXPECT_EQ(run_kavstat({"--all"}).err, "A subcommand is required" + help);
    EXPECT_EQ(run_kavstat({}).err, "A subcommand is required" + help);
    EXPECT_EQ(run_kavstat({"import", "top.log"}).err, "FILE is required" + help);
    EXPECT_EQ(run_kavstat({"json", "--scope", "peer"}).err,
              "--scope: no such scope: \"peer\"; scopes are global,connections,peers,apps,nacks,config,bypass" + help);
    EXPECT_EQ(run_kavstat({"diff", "--scope", "peer", "saved"}).err,
              "--scope: no such scope: \"peer\"; scopes are engine,connections,peers,applications" + help);
}

TEST_F(kavstat_command, without_an_engine_says_so_with_status_3)
{
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"json"}, {"watch", "--once", "-i", "0.1"}}) {
        const program_result result = run_kavstat(arguments);
        EXPECT_EQ(result.status, 3);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "kavstat: no engine is running\n");
    }
    setenv("KAV_STAT_OWNER", "no such user", 1);
    EXPECT_EQ(run_kavstat({"json"}).err, "kavstat: KAV_STAT_OWNER is not a user of this machine\n");
    unsetenv("KAV_STAT_OWNER");
    // A scrape must succeed and show that no engine runs.
    const program_result metrics = run_kavstat({"metrics"});
    EXPECT_EQ(metrics.status, 0);
    EXPECT_TRUE(contains(metrics.out, "\nkav_up 0\n"));
}

TEST_F(kavstat_command, refuses_files_that_are_no_statistics_with_a_reason)
{
    const small_engine engine;
    const std::string sound = bytes_of_file(save("sound"));
    std::string other_version = sound;
    other_version[12] = 9;
    std::string damaged = sound;
    damaged[sound.size() / 2] ^= 1;
    write_file(path("empty"), "");
    write_file(path("text"), std::string(1000, 'x'));
    write_file(path("cut"), sound.substr(0, sound.size() - 1));
    write_file(path("damaged"), damaged);
    write_file(path("version"), other_version);
    const std::vector<std::pair<std::string, std::string>> reasons = {
        {"none", "there is no such file"},  {"empty", "the file is empty"},
        {"text", "not a statistics file"},  {"cut", "the file is shorter or longer than its contents"},
        {"damaged", "the file is damaged"}, {"version", "this program does not know the version of its layout"},
        {".", "not a regular file"}};
    for (const auto& [name, reason] : reasons) {
        for (const std::vector<std::string>& arguments : {std::vector<std::string>{"json", "--file", path(name)},
                                                          {"metrics", "--file", path(name)},
                                                          {"diff", path("sound"), path(name)},
                                                          {"diff", path(name)}}) {
            const program_result result = run_kavstat(arguments);
            EXPECT_EQ(result.status, 3) << name;
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(result.err, "kavstat: " + path(name) + ": " + reason + "\n");
        }
    }
}

TEST_F(kavstat_command, says_when_its_output_is_full_or_closed_with_status_4)
{
    const small_engine engine;
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    for (const std::vector<std::string>& arguments : printing_commands) {
        run_surroundings surroundings;
        surroundings.output = full;
        EXPECT_EQ(run_kavstat(arguments, surroundings).status, 4) << arguments.front();
        surroundings.output = -1;
        EXPECT_EQ(run_kavstat(arguments, surroundings).status, 4) << arguments.front();
    }
    close(full);
    run_surroundings surroundings;
    surroundings.output = -1;
    EXPECT_EQ(run_kavstat({"json"}, surroundings).err, "kavstat: standard output: Bad file descriptor\n");
}

TEST_F(kavstat_command, ends_quietly_when_its_reader_has_seen_enough)
{
    const small_engine engine;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"json"},
                                                      {"json", "--interval", "0.1"},
                                                      {"metrics"},
                                                      {"watch", "-i", "0.1"},
                                                      {"watch", "--json", "-i", "0.1"}}) {
        run_surroundings surroundings;
        surroundings.output = ends[1];
        const program_result result = run_kavstat(arguments, surroundings);
        EXPECT_EQ(result.status, 4);
        EXPECT_EQ(result.signal, 0);
        EXPECT_EQ(result.err, "");
    }
    close(ends[1]);
}

TEST_F(kavstat_command, waits_for_a_non_blocking_output_that_is_full)
{
    const small_engine engine;
    const std::string whole = run_kavstat({"metrics"}).out;
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_LT(fcntl(ends[1], F_SETPIPE_SZ, 4096), static_cast<int>(whole.size()));
    run_surroundings surroundings;
    surroundings.output = ends[1];
    child_program program(built_program("kavstat"), {"metrics"}, surroundings);
    close(ends[1]);
    std::string taken;
    char bytes[1000];
    for (ssize_t count = -1; count != 0; count = read(ends[0], bytes, sizeof bytes)) {
        taken.append(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        usleep(200);
    }
    close(ends[0]);
    EXPECT_EQ(program.finish().status, 0);
    EXPECT_EQ(taken, whole);
}

TEST_F(kavstat_command, list_finds_counters_by_name_meaning_unit_and_kind)
{
    EXPECT_EQ(run_kavstat({"list", "CACHE_STATE"}).out,
              "engine       cache_state  state                current  "
              "0 not usable, 1 initializing, 2 usable, 3 temporarily failed, 4 failed\n"
              "    kav_cache_state\n");
    EXPECT_EQ(run_kavstat({"list", "--scope", "peer", "--unit", "percent"}).out,
              "peer         bypass_ratio  percent              current  share of messages that bypass the engine\n"
              "    kav_peer_bypass_ratio\n");
    EXPECT_EQ(run_kavstat({"list", "_NACKS_total{reason=\"chunk"}).out,
              "connection   num_miss_nack_msgs  messages             total    messages nacked: chunk missed\n"
              "    kav_connections_nacks_total{reason=\"chunk_missed\"}\n"
              "    kav_peer_connections_nacks_total{reason=\"chunk_missed\"}\n");
    EXPECT_EQ(
        run_kavstat({"list", "hwfq_bytes_dscp_base"}).out,
        "engine       so_hwfq_bytes_dscp_base[4]  bytes                total    bytes queued for sending, by dscp "
        "group\n"
        "    kav_transport_queued_dscp_bytes_total{dscp=~\".+\"}\n");
    EXPECT_EQ(run_kavstat({"list", "no such thing"}).out, "");
    const nlohmann::json rows = nlohmann::json::parse(run_kavstat({"list", "--json"}).out);
    EXPECT_EQ(rows.size(), 107U + 42U + 166U + 18U);
    EXPECT_EQ(rows[0], nlohmann::json::parse(R"({"scope":"engine","id":0,"size":1,
        "name":"RE_STAT_GLOBAL_ID_CACHE_STATE","key":"cache_state","unit":"state","kind":"current",
        "meaning":"0 not usable, 1 initializing, 2 usable, 3 temporarily failed, 4 failed",
        "metrics":["kav_cache_state"]})"));
}

TEST_F(kavstat_command, lines_and_differences_are_what_their_schemas_describe)
{
    const std::string error = "{\"kavstat_json\":1,\"capture_time\":1,\"error\":\"no engine is running\"}\n";
    child_program lines(built_program("kavstat"), {"json", "--interval", "0.1"});
    EXPECT_EQ(validate_as("statistics-line", lines.read_line().value_or("")), "valid");
    EXPECT_EQ(validate_as("statistics-line", error), "valid");
    EXPECT_NE(validate_as("statistics", error), "valid");
    const std::vector<std::string> watch = {"watch", "--json", "--once", "--interval", "0.2", "--page"};
    const auto watch_page = [&](const char* page) {
        std::vector<std::string> arguments = watch;
        arguments.emplace_back(page);
        return run_kavstat(arguments).out;
    };
    child_program view(built_program("kavstat"), {"watch", "--json", "--interval", "0.2"});
    const std::string no_figures = view.read_line().value_or("");
    view.send_signal(SIGTERM);
    EXPECT_TRUE(contains(no_figures, "\"error\"")) << no_figures;
    EXPECT_EQ(validate_as("watch", no_figures), "valid");

    demo_engine demo({"--variety", "--rate", "2", "--ill", "low-memory,nacks"});
    ASSERT_TRUE(demo.says("ready"));
    const std::string before = save("before");
    std::string statistics;
    do {
        statistics = lines.read_line().value_or("");
    } while (contains(statistics, "\"error\""));
    EXPECT_EQ(validate_as("statistics-line", statistics), "valid");
    lines.send_signal(SIGTERM);
    for (const char* const page :
         {"overview", "peers", "connections", "applications", "nacks", "bypass", "counters", "configuration"}) {
        const std::string line = watch_page(page);
        EXPECT_FALSE(contains(line, "\"error\"")) << line;
        EXPECT_EQ(validate_as("watch", line), "valid") << page;
    }
    nlohmann::json wrong = nlohmann::json::parse(watch_page("peers"));
    wrong["rows"][0]["peer"] = nlohmann::json::array();
    EXPECT_NE(validate_as("watch", wrong.dump()), "valid");

    const std::string difference = run_kavstat({"diff", "--json", before}).out;
    EXPECT_EQ(validate_as("diff", difference), "valid");
    EXPECT_EQ(validate_as("diff", run_kavstat({"diff", "--json", "--all", before}).out), "valid");
    wrong = nlohmann::json::parse(difference);
    wrong["sections"][0]["counters"].begin().value().erase("before");
    EXPECT_NE(validate_as("diff", wrong.dump()), "valid");
    // The engine restarts, and its peers are new or gone.
    demo.stop();
    demo_engine next({"--peers", "2", "--rate", "2"});
    ASSERT_TRUE(next.says("ready"));
    EXPECT_EQ(validate_as("diff", run_kavstat({"diff", "--json", "--force", before}).out), "valid");
}

TEST_F(kavstat_command, json_is_what_its_schema_describes)
{
    const auto validate = [this](const std::string& document) { return validate_as("statistics", document); };
    {
        const small_engine engine;
        save("saved");
        const std::string document = run_kavstat({"json"}).out;
        EXPECT_EQ(validate(document), "valid");
        EXPECT_EQ(validate(run_kavstat({"json", "--scope", "nacks"}).out), "valid");
        EXPECT_EQ(validate(run_kavstat({"json", "--file", path("saved")}).out), "valid");
        // The validator notices errors.
        nlohmann::json wrong = nlohmann::json::parse(document);
        wrong["peers"][0]["counters"]["num_nacks"] = "3";
        EXPECT_NE(validate(wrong.dump()), "valid");
        wrong = nlohmann::json::parse(document);
        wrong["connections"][0]["counters"].erase("ack_bytes");
        EXPECT_NE(validate(wrong.dump()), "valid");
    }
    demo_engine demo({"--once", "--repeat", "1", KAV_DOCS});
    ASSERT_TRUE(demo.says("ready"));
    ASSERT_TRUE(demo.says("idle"));
    EXPECT_EQ(validate(run_kavstat({"json"}).out), "valid");
}

TEST_F(kavstat_command, json_reads_files_of_every_layout)
{
    const program_result result = run_kavstat({"json", "--file", KAV_TEST_DATA "/statistics.layout-1"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(nlohmann::json::accept(result.out));
}

TEST_F(kavstat_command, json_with_an_interval_is_a_line_for_each_moment)
{
    child_program lines(built_program("kavstat"), {"json", "--interval", "0.1", "--scope", "global,peers"});
    const auto next = [&] { return nlohmann::json::parse(lines.read_line().value_or("")); };
    nlohmann::json line = next();
    EXPECT_GT(line["capture_time"], 1700000000);
    line.erase("capture_time");
    EXPECT_EQ(line, nlohmann::json::parse(R"({"kavstat_json": 1, "error": "no engine is running"})"));
    const auto wait_for = [&](const char* key) {
        for (int count = 0; count < 300 && !line.contains(key); ++count) {
            line = next();
        }
        return line.contains(key);
    };
    {
        const small_engine engine;
        ASSERT_TRUE(wait_for("peers"));
        EXPECT_EQ(line["peers"][0]["host_name"], "branch-1.example.net");
        EXPECT_FALSE(line.contains("connections"));
        EXPECT_TRUE(next().contains("global"));
    }
    EXPECT_TRUE(wait_for("error"));
    lines.send_signal(SIGTERM);
    const program_result result = lines.finish();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(kavstat_command, metrics_are_what_promtool_accepts)
{
    const small_engine engine;
    write_file(path("metrics.prom"), run_kavstat({"metrics"}).out);
    const program_result result =
        child_program("/bin/sh", {"-c", "promtool check metrics <'" + path("metrics.prom") + "'"}).finish();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out + result.err, "");
}

TEST_F(kavstat_command, openmetrics_are_what_a_strict_parser_accepts)
{
    const auto parse = [this](const std::string& text) {
        write_file(path("metrics.txt"), text);
        return child_program("/usr/bin/python3", {KAV_TEST_FILES "/openmetrics.py", path("metrics.txt")}).finish();
    };
    const std::vector<std::string> command = {"metrics", "--format", "openmetrics"};
    {
        const program_result absent = parse(run_kavstat(command).out);
        EXPECT_EQ(absent.err, "");
        EXPECT_EQ(absent.out, "kav_up gauge - kav_up 0\n"
                              "kavstat_build info - kavstat_build_info 1\n");
    }
    const small_engine engine;
    const std::string text = run_kavstat(command).out;
    const program_result result = parse(text);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_TRUE(contains(result.out, "\nkav_connections_input_bytes counter bytes kav_connections_input_bytes_total "
                                     "1000000\n"))
        << result.out;
    EXPECT_TRUE(contains(result.out, "\nkav_connections_message_size_bytes histogram bytes "));
    const program_result short_one = parse(run_kavstat({"metrics", "--format", "openmetrics", "--no-collector.peers",
                                                        "--no-collector.created", "--max-series", "10"})
                                               .out);
    EXPECT_EQ(short_one.err, "");
    EXPECT_FALSE(contains(short_one.out, "_created "));
    EXPECT_FALSE(contains(short_one.out, "kav_peer_"));
    // The parser notices errors.
    EXPECT_NE(parse(text + "\n").status, 0);
    EXPECT_NE(parse(text.substr(0, text.size() - 6)).status, 0);
}

TEST_F(kavstat_command, diff_compares_a_file_with_the_running_engine)
{
    small_engine engine;
    const std::string before = save("before");
    engine.writer().add_conn_stat(engine.encoding_conn(), RE_STAT_CONN_ID_ENCODE_IN_BYTES, 500);
    const program_result live = run_kavstat({"diff", before});
    EXPECT_EQ(live.status, 0) << live.err;
    EXPECT_TRUE(contains(live.out, "  encode_in_bytes  bytes  1000000  1000500    +500")) << live.out;
    EXPECT_TRUE(contains(live.out, "\npeer 1 branch-1.example.net, connections\n"));
    const std::string after = save("after");
    EXPECT_TRUE(contains(run_kavstat({"diff", before, after}).out, "  +500"));
    const program_result searched =
        run_kavstat({"diff", "--scope", "peers,engine", "--search", "encode_in", "--json", before, after});
    EXPECT_EQ(searched.err, "");
    EXPECT_EQ(nlohmann::json::parse(searched.out)["sections"], nlohmann::json::parse(R"([
        {"scope": "peer_connections", "peer": 1, "host_name": "branch-1.example.net",
         "kav_peer_id": "00:11:22:33:44:55-010203040506-0a0b0c0d", "counters": {
            "encode_in_bytes": {"unit": "bytes", "before": 1000000, "after": 1000500, "change": 500}}}])"))
        << searched.out;
    const program_result same = run_kavstat({"diff", after, after});
    EXPECT_EQ(std::count(same.out.begin(), same.out.end(), '\n'), 3) << same.out;
}

TEST_F(kavstat_command, diff_refuses_statistics_of_different_engines)
{
    std::string first;
    {
        const small_engine engine;
        first = save("first");
    }
    small_engine engine;
    RE_stat_config_param config{};
    config.m_local_kav_peer_id.m_data[0] = 0xee;
    engine.writer().set_config(config);
    const std::string second = save("second");
    const program_result result = run_kavstat({"diff", first, second});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "kavstat: cannot be compared: " + first +
                              " is of engine 00:11:22:33:44:55-010203040506-0a0b0c0d, " + second +
                              " of engine ee:00:00:00:00:00-000000000000-00000000\n");
    EXPECT_EQ(run_kavstat({"diff", "--force", first, second}).status, 0);
}

TEST_F(kavstat_command, serve_ends_at_sigterm_and_refuses_a_taken_port_with_status_5)
{
    kavstat_server server;
    EXPECT_EQ(get(server.port(), "/healthz").body, "ok\n");
    const program_result second = run_kavstat({"serve", "--listen", "127.0.0.1:" + std::to_string(server.port())});
    EXPECT_EQ(second.status, 5);
    EXPECT_EQ(second.out, "");
    EXPECT_TRUE(contains(second.err, "Address already in use")) << second.err;
    const program_result result = server.stop();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(kavstat_command, serve_ends_within_a_second_while_it_sends)
{
    RE_stat_limits limits;
    limits.connections = 4000;
    RE_stat_writer engine;
    ASSERT_EQ(engine.create(limits, 1700000000), 0);
    for (int number = 0; number < limits.connections; ++number) {
        engine.open_conn(-1, conn_ends(number, 1, 2, 3, 4), transport(1), 5);
    }
    engine.publish();
    kavstat_server server;
    const http_client lazy(server.port());
    lazy.send("GET /api/v1/statistics HTTP/1.1\r\nHost: localhost\r\n\r\n");
    ASSERT_TRUE(lazy.take(1));
    const auto start_time = std::chrono::steady_clock::now();
    const program_result result = server.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start_time, std::chrono::seconds(1));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(kavstat_command, serve_keeps_descriptors_for_itself)
{
    const small_engine engine;
    run_surroundings surroundings;
    surroundings.limits = {{RLIMIT_NOFILE, 20}};
    kavstat_server server(surroundings);
    std::vector<std::unique_ptr<http_client>> silent;
    for (int number = 0; number < 30; ++number) {
        silent.push_back(std::make_unique<http_client>(server.port()));
        EXPECT_TRUE(contains(get(server.port(), "/metrics").body, "\nkav_up 1\n")) << number;
    }
    EXPECT_EQ(server.stop().status, 0);

    surroundings.limits = {{RLIMIT_NOFILE, 10}};
    const program_result result = run_kavstat({"serve", "--listen", "127.0.0.1:0"}, surroundings);
    EXPECT_EQ(result.status, 5);
#ifndef KAV_COUNTED
    EXPECT_EQ(result.err,
              "kavstat: cannot listen on 127.0.0.1:0: too few descriptors; raise the limit on open files\n");
#endif
}

TEST_F(kavstat_command, serve_answers_to_the_hosts_that_are_allowed)
{
    child_program server(built_program("kavstat"), {"serve", "--listen", "127.0.0.1:0", "--allow-host", "a.example",
                                                    "--allow-host", "b.example"});
    const std::string line = server.read_line().value_or("");
    const int port = std::atoi(line.substr(line.rfind(':') + 1).c_str());
    for (const auto& [host, status] : {std::pair{"a.example", 200}, {"b.example", 200}, {"c.example", 403}}) {
        const http_client client(port);
        client.send(std::string("GET /healthz HTTP/1.1\r\nHost: ") + host + "\r\n\r\n");
        EXPECT_EQ(parse_answer(client.read_all()).status, status) << host;
    }
}
