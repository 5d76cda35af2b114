#include "command_line.h"

#include "charts/chart_table.h"
#include "commands/commands.h"
#include "documents/schemas.h"
#include "health/report.h"
#include "history/space.h"
#include "history/times.h"
#include "model/counter_names.h"
#include "serve/http_request.h"
#include "watch/page.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <functional>
#include <iostream>
#include <memory>

namespace kavstat {

namespace {

constexpr const char* description =
    "Statistics of the KAV engine as JSON, metrics, a live view, a web page, and differences between two moments, and\n"
    "the engine's health. Reads the running engine, a file that \"exec_show_stats_kav save-file\" wrote, or a "
    "database\n"
    "that \"kavstat record\" wrote.";

constexpr const char* footer = "Exit status: 0 success, 1 any other error, 2 wrong command line, 3 no engine is "
                               "running or a file cannot be read,\n"
                               "4 the output cannot be written, 5 the server cannot listen on the address.\n"
                               "Environment: KAV_STAT_SEGMENT selects one of several engines. KAV_STAT_OWNER names a "
                               "user whose engine is trusted,\n"
                               "besides root and the current user.";

constexpr const char* file_help = "A saved statistics file instead of the running engine";
constexpr const char* rules_help = "A TOML file that changes thresholds and severities of rules";

std::vector<std::string> unit_words()
{
    return {
#define RE_STAT_UNIT(word) #word,
#include "RE_stat_counters.def"
    };
}

std::vector<std::string> kind_words()
{
    return {
#define RE_STAT_KIND(word) #word,
#include "RE_stat_counters.def"

    };
}

void add_list(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("list", "Every counter with its unit, kind, meaning and metrics");
    const auto options = std::make_shared<ListOptions>();
    command->add_option("SEARCH", options->search, "Only counters whose name, metric or meaning contains this text");
    command->add_option("--scope", options->scope, "Only counters of this scope")
        ->check(CLI::IsMember({"engine", "peer", "connection", "application"}));
    command->add_option("--unit", options->unit, "Only counters of this unit")->check(CLI::IsMember(unit_words()));
    command->add_option("--kind", options->kind, "Only counters of this kind")->check(CLI::IsMember(kind_words()));
    command->add_flag("--json", options->b_json, "As JSON");
    command->callback([options, &status] { status = run_list(*options); });
}

std::string no_such_scope(const std::string& unknown, const std::string& all)
{
    return "no such scope: \"" + unknown + "\"; scopes are " + all;
}

// Returns the error in a list of scopes, or an empty text.
std::string check_scopes(const std::string& words)
{
    std::string unknown;
    return parse_json_scopes(words, unknown) ? "" : no_such_scope(unknown, all_json_scopes());
}

std::string check_diff_scopes(const std::string& words)
{
    DiffChoice choice;
    std::string unknown;
    return parse_diff_scopes(words, choice, unknown) ? "" : no_such_scope(unknown, all_diff_scopes());
}

// Written so that NaN, which compares as false, is refused as well.
std::string check_interval(const std::string& text)
{
    double seconds = 0;
    const bool b_sound = CLI::detail::lexical_cast(text, seconds) && seconds >= 0.1 && seconds <= 3600;
    return b_sound ? "" : "not between 0.1 and 3600 seconds: \"" + text + "\"";
}

std::string check_moment(const std::string& text)
{
    return parse_moment(text, std::time(nullptr))
               ? ""
               : "not a time like " + std::string(moment_forms) + ": \"" + text + "\"";
}

// An option for a moment.
CLI::Option* add_moment(CLI::App* command, const char* name, std::optional<std::time_t>& moment, const char* help)
{
    return command
        ->add_option_function<std::string>(
            name, [&moment](const std::string& text) { moment = parse_moment(text, std::time(nullptr)); }, help)
        ->check(CLI::Validator(check_moment, "TIME"));
}

constexpr const char* from_help = "The start of the time";
constexpr const char* to_help = "The end of the time";

// Throws when a span of time ends before it begins.
void check_span(const HistorySpan& span)
{
    if (span.from && span.to && *span.from > *span.to) {
        throw CLI::ValidationError("--to", "earlier than --from");
    }
}

// --history and the moments. one: whether the command has --at.
void add_history(CLI::App* command, const std::shared_ptr<HistoryOptions>& options, bool b_one)
{
    CLI::Option* const file = command->add_option("--history", options->file,
                                                  "A database of \"kavstat record\" instead of the running engine");
    CLI::Option* const from = add_moment(command, "--from", options->span.from, from_help)->needs(file);
    CLI::Option* const to = add_moment(command, "--to", options->span.to, to_help)->needs(file);
    if (b_one) {
        add_moment(command, "--at", options->at, "The last sample at or before this time")
            ->needs(file)
            ->excludes(from)
            ->excludes(to);
    }
}

void add_json(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("json", "Statistics as one JSON document");
    const auto options = std::make_shared<JsonOptions>();
    const auto scopes = std::make_shared<std::string>(all_json_scopes());
    CLI::Option* const file = command->add_option("-f,--file", options->file, file_help);
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), true);
    file->excludes("--history");
    command->add_option("--scope", *scopes, "Sections, joined by commas")
        ->check(CLI::Validator(check_scopes, "SECTIONS"))
        ->capture_default_str();
    command
        ->add_option("-i,--interval", options->interval,
                     "Print a document after every interval, each on one line, until SIGTERM or SIGINT")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->excludes("--file")
        ->excludes("--history");
    command->callback([options, scopes, &status] {
        check_span(options->history.span);
        std::string unknown;
        options->scopes = *parse_json_scopes(*scopes, unknown);
        status = run_json(*options);
    });
}

void add_schema(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("schema", "The JSON Schema of kavstat's JSON documents");
    const auto document = std::make_shared<std::string>("statistics");
    command
        ->add_option(
            "--of", *document,
            "The document of \"json\" and \"serve\", a line of \"json --interval\", or the document of \"health\", "
            "\"watch\" or \"diff\" with --json")
        ->check(CLI::IsMember(schema_words()))
        ->capture_default_str();
    command->callback([document, &status] { status = run_schema(*document); });
}

// The options that choose metrics, as users of node_exporter know them. b_serve: for the server, which also has metrics
// of its own. Returns what turns the choice into that of the options, for the command's callback.
std::function<void()> add_metrics_choice(CLI::App& command, MetricsChoice& choice, bool b_serve)
{
    const auto b_none = std::make_shared<bool>(false);
    const auto wanted = std::make_shared<std::array<std::optional<bool>, collector_names.size()>>();
    for (std::size_t at = 0; at < collector_names.size(); ++at) {
        if (at == static_cast<std::size_t>(Collector::process) && !b_serve) {
            continue;
        }
        const std::string name = collector_names.at(at);
        command
            .add_flag_callback(
                "--collector." + name, [wanted, at] { wanted->at(at) = true; },
                "Enable this collector (default: enabled)")
            ->group("Collectors");
        command
            .add_flag_callback(
                "--no-collector." + name, [wanted, at] { wanted->at(at) = false; }, "Disable this collector")
            ->group("Collectors");
    }
    command.add_flag("--collector.disable-defaults", *b_none, "Disable all collectors that are not enabled by name")
        ->group("Collectors");
    command
        .add_option("--max-series", choice.max_series,
                    "The largest number of series of engine, peers and applications; 0 means no limit")
        ->capture_default_str();
    return [b_none, wanted, &choice] {
        for (std::size_t at = 0; at < wanted->size(); ++at) {
            choice.collectors.set(at, wanted->at(at).value_or(!*b_none));
        }
    };
}

void add_metrics(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("metrics", "Metrics of engine, peers and applications, as text for Prometheus");
    const auto options = std::make_shared<MetricsOptions>();
    const auto format = std::make_shared<std::string>("prometheus");
    command->add_option("-f,--file", options->file, file_help);
    command->add_option("--format", *format, "The text format of Prometheus, or OpenMetrics 1.0")
        ->check(CLI::IsMember({"prometheus", "openmetrics"}))
        ->capture_default_str();
    const std::function<void()> set_collectors = add_metrics_choice(*command, options->choice, false);
    command->callback([options, format, set_collectors, &status] {
        set_collectors();
        options->choice.format = *format == "openmetrics" ? MetricsFormat::openmetrics : MetricsFormat::prometheus;
        status = run_metrics(*options);
    });
}

void add_watch(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("watch", "A live view with rates per second; press ? for its keys");
    const auto options = std::make_shared<WatchOptions>();
    command->add_option("-i,--interval", options->interval, "Seconds between two readings of the engine")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str();
    const std::vector<std::string> pages = watch_page_names();
    options->page = pages.front();
    command->add_option("-p,--page", options->page, "The first page")
        ->check(CLI::IsMember(pages))
        ->capture_default_str();
    CLI::Option* const file = command->add_option("-f,--file", options->file, file_help);
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), true);
    file->excludes("--history");
    command->add_option("-s,--sort", options->sort, "The column that orders the page's rows: a key of its JSON");
    command->add_flag("-r,--reverse", options->b_reverse, "Reverse the order");
    command->add_option("--filter", options->filter, "Only rows that contain this text");
    command->add_option("--rules", options->rules, rules_help);
    command->add_flag("--once", options->b_once, "Print the page once as text, after one interval");
    command->add_flag("--json", options->b_json, "Print a line of JSON after every interval");
    command->callback([options, &status] {
        check_span(options->history.span);
        status = run_watch(*options);
    });
}

void add_health(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("health", "What is wrong, where, since when, and what to do; usable as a monitoring plugin");
    const auto options = std::make_shared<HealthOptions>();
    CLI::Option* const files = command
                                   ->add_option("-f,--file", options->files,
                                                "A saved statistics file instead of the running engine; give it twice "
                                                "to compare two files, the earlier "
                                                "one first")
                                   ->allow_extra_args(false)
                                   ->expected(1, 2);
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), true);
    files->excludes("--history");
    CLI::Option* const since =
        command->add_option("--since", options->since, "A saved statistics file to compare with, the earlier one")
            ->excludes("--history");
    command->add_option("-i,--interval", options->interval, "Seconds between two readings of the running engine")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str()
        ->excludes(files)
        ->excludes(since);
    command->add_option("--rules", options->rules, rules_help);
    command->add_flag("--json", options->b_json, "As JSON");
    command->add_flag("-a,--all", options->b_all, "Show all findings of rules that have many");
    command->footer("Exit status: 0 ok, 1 warning, 2 critical, 3 unknown (no engine, or any error).");
    command->callback([options, &status] {
        if (options->since && options->files.size() > 1) {
            throw CLI::ExcludesError("--since", "a second --file");
        }
        check_span(options->history.span);
        status = run_health(*options);
    });
}

void add_rules(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("rules", "The rules of \"health\" as alerting rules of Prometheus");
    const auto options = std::make_shared<RulesOptions>();
    command->add_option("--rules", options->rules, rules_help);
    command->add_flag("--settings", options->b_settings,
                      "Print a settings file for --rules instead, with everything that can be changed");
    command->callback([options, &status] { status = run_rules(*options); });
}

std::vector<std::string> chart_names()
{
    std::vector<std::string> names;
    for (const ChartScope scope : {ChartScope::engine, ChartScope::peer}) {
        for (const Chart& chart : charts_of(scope)) {
            if (std::find(names.begin(), names.end(), chart.name) == names.end()) {
                names.emplace_back(chart.name);
            }
        }
    }
    return names;
}

void add_report(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("report", "The page of \"serve\" as one HTML file that contains its data");
    const auto options = std::make_shared<ReportOptions>();
    CLI::Option* const file = command->add_option(
        "FILE", options->file,
        "A saved statistics file or a database of \"kavstat record\" instead of the running engine");
    add_moment(command, "--from", options->span.from, from_help)->needs(file);
    add_moment(command, "--to", options->span.to, to_help)->needs(file);
    command->add_option("-o,--output", options->output, "Write to this file instead of standard output");
    command->add_option("-i,--interval", options->interval, "Seconds between two readings of the running engine")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str();
    command->add_option("--rules", options->rules, rules_help);
    CLI::Option* const chart =
        command->add_option("--svg", options->chart, "A picture of one chart instead of the page")
            ->check(CLI::IsMember(chart_names()));
    command->add_option("--peer", options->peer, "The chart of the peer with this number instead of the engine's")
        ->needs(chart);
    command->callback([options, &status] {
        check_span(options->span);
        status = run_report(*options);
    });
}

void add_serve(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("serve", "Serve a page, metrics and statistics over HTTP until SIGTERM or SIGINT");
    const auto options = std::make_shared<ServeOptions>();
    const auto address = std::make_shared<std::string>("127.0.0.1:9748");
    command
        ->add_option("--listen", *address,
                     "Where to listen: a numeric address and a port, [ADDRESS]:PORT for IPv6, or unix:/PATH")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return parse_listen_address(text)
                           ? ""
                           : "not a numeric address and a port, such as 127.0.0.1:9748: \"" + text + "\"";
            },
            "ADDRESS:PORT"))
        ->capture_default_str();
    const auto mode = std::make_shared<std::string>("0660");
    command->add_option("--socket-mode", *mode, "Permissions of a Unix socket, octal")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return !text.empty() && text.size() <= 4 && text.find_first_not_of("01234567") == std::string::npos &&
                               (text.size() < 4 || text[0] == '0')
                           ? ""
                           : "not octal permissions: \"" + text + "\"";
            },
            "MODE"))
        ->capture_default_str();
    command
        ->add_option("--history", options->http.history,
                     "A database of \"kavstat record\", whose past the page shows as well")
        ->check(CLI::ExistingFile);
    command->add_option("--rules", options->rules, rules_help);
    command->add_option("--web-config", options->web_config,
                        "A file with TLS certificate and users, in the form of Prometheus' web configuration");
    command->add_flag("--insecure", options->b_insecure, "Serve other machines even without TLS or passwords");
    command
        ->add_option("--allow-host", options->http.allowed_hosts,
                     "Another name that clients may use for a loopback address; can be repeated")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return is_host_name(text) ? "" : "not a name or an address without a port: \"" + text + "\"";
            },
            "NAME"))
        ->allow_extra_args(false);
    const std::function<void()> set_collectors = add_metrics_choice(*command, options->http.metrics, true);
    command->callback([options, address, mode, set_collectors, &status] {
        set_collectors();
        options->address = *parse_listen_address(*address);
        options->address.mode = static_cast<mode_t>(std::stoul(*mode, nullptr, 8));
        status = run_serve(*options);
    });
}

// size: bytes; unchanged without the option.
void add_max_size(CLI::App* command, long long& size, const char* help)
{
    command
        ->add_option_function<std::string>(
            "--max-size", [&size](const std::string& text) { size = *parse_size(text); }, help)
        ->check(CLI::Validator(
            [](const std::string& text) {
                return parse_size(text).value_or(0) >= least_history_size
                           ? ""
                           : "not a size of 4M or more: \"" + text + "\"";
            },
            "SIZE"));
}

void add_record(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("record", "Record the running engine into an SQLite database until SIGTERM or SIGINT");
    const auto options = std::make_shared<RecordOptions>();
    command->add_option("FILE", options->file, "The database, created when it does not exist")->required();
    CLI::Option* const once = command->add_flag("--once", options->b_once, "Take one sample and exit, for cron");
    command->add_option("-i,--interval", options->interval, "Seconds between two samples")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str()
        ->excludes(once);
    command->add_flag("--connections", options->b_connections,
                      "Also the connections that changed since the last sample");
    const auto keep = std::make_shared<std::string>(default_keep);
    command->add_option("--keep", *keep, "For samples up to each AGE, keep one in each STEP; or \"all\"")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return parse_keep(text)
                           ? ""
                           : "not ages, in ascending order, and steps as in \"1d:all,30d:1m,2y:1h\": \"" + text + "\"";
            },
            "AGE:STEP,..."))
        ->capture_default_str();
    add_max_size(command, options->max_size,
                 "The largest size of the database, with K, M, G or T; the oldest samples are removed");
    command->callback([options, keep, &status] {
        options->keep = *parse_keep(*keep);
        status = run_record(*options);
    });
}

void add_import(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("import", "Import top-application logs into a database of \"kavstat record\"");
    const auto options = std::make_shared<ImportOptions>();
    const auto files = std::make_shared<std::vector<std::string>>();
    command->add_option("LOG", *files, "The logs, then the database, which is created when it does not exist")
        ->option_text("... FILE REQUIRED")
        ->required();
    add_max_size(command, options->max_size,
                 "The largest size of the database, with K, M, G or T; a log without room is not imported to its end");
    command->callback([options, files, &status] {
        if (files->size() < 2) {
            throw CLI::RequiredError("FILE");
        }
        options->logs = *files;
        options->file = files->back();
        options->logs.pop_back();
        status = run_import(*options);
    });
}

void add_export(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("export", "Write a table of a database of \"kavstat record\" as text");
    const auto options = std::make_shared<ExportOptions>();
    command->add_option("FILE", options->file, "The database")->required();
    command->add_option("-t,--table", options->table, "The table or view")->required();
    const auto format = std::make_shared<std::string>("csv");
    command->add_option("--format", *format, "Comma-separated values, or a JSON object on each line")
        ->check(CLI::IsMember({"csv", "jsonl"}))
        ->capture_default_str();
    add_moment(command, "--from", options->span.from, from_help);
    add_moment(command, "--to", options->span.to, to_help);
    command->callback([options, format, &status] {
        check_span(options->span);
        options->b_json_lines = *format == "jsonl";
        status = run_export(*options);
    });
}

void add_diff(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("diff", "What changed between two moments, as totals and rates");
    const auto options = std::make_shared<DiffOptions>();
    command->add_option("A", options->before, "The earlier saved statistics file");
    command->add_option("B", options->after, "The later saved statistics file; default: the running engine");
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), false);
    command->add_flag("-a,--all", options->choice.b_all, "Also show counters that did not change");
    const auto scopes = std::make_shared<std::string>(all_diff_scopes());
    command->add_option("--scope", *scopes, "Scopes to compare, joined by commas")
        ->check(CLI::Validator(check_diff_scopes, "SCOPES"))
        ->capture_default_str();
    command->add_option("-s,--search", options->choice.search,
                        "Only counters whose name or meaning contains this text");
    command->add_flag("--force", options->b_force, "Compare statistics of different engines, or in the wrong order");
    command->add_flag("--json", options->b_json, "As JSON");
    command->callback([options, scopes, &status] {
        std::string unknown;
        parse_diff_scopes(*scopes, options->choice, unknown);
        if (options->history.file && !options->before.empty()) {
            throw CLI::ExcludesError("A", "--history");
        }
        if (options->history.file ? !options->history.span.from : options->before.empty()) {
            throw options->history.file ? CLI::RequiredError("--from")
                                        : CLI::RequiredError("A saved file, or --history FILE with --from TIME,");
        }
        check_span(options->history.span);
        status = run_diff(*options);
    });
}

} // namespace

int run_command_line(int argc, const char* const* argv)
{
    int status = EXIT_OK;
    CLI::App app(description, "kavstat");
    app.footer(footer);
    app.set_version_flag("--version", std::string("kavstat ") + KAV_VERSION);
    app.require_subcommand(1);
    add_json(app, status);
    add_metrics(app, status);
    add_health(app, status);
    add_rules(app, status);
    add_watch(app, status);
    add_serve(app, status);
    add_report(app, status);
    add_diff(app, status);
    add_record(app, status);
    add_import(app, status);
    add_export(app, status);
    add_list(app, status);
    add_schema(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // CLI11 misses a command before it looks at the words that it does not know.
        const std::vector<std::string> unknown = app.remaining();
        const bool b_unknown_command =
            app.get_subcommands().empty() && !unknown.empty() && !unknown[0].starts_with('-');
        const int exit_code = b_unknown_command
                                  ? app.exit(CLI::ValidationError("no such command: \"" + unknown[0] + "\""))
                                  : app.exit(error);
        std::cout.flush();
        if (!std::cout) {
            return EXIT_OUTPUT;
        }
        if (exit_code == 0) {
            return EXIT_OK;
        }
        // A monitor would read 2 as a result of the check, and does not read standard error.
        if (argc > 1 && std::string(argv[1]) == "health") {
            std::cout << "KAV UNKNOWN: " << error.what() << std::endl;
            return HEALTH_UNKNOWN;
        }
        return EXIT_USAGE;
    }
    return status;
}

} // namespace kavstat
