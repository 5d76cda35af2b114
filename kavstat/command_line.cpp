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
    "Statistics of the KAV engine for programs and for people who watch: as JSON, as metrics, as a live view, and as\n"
    "what changed between two moments. Statistics come from the running engine, or from a file that\n"
    "\"exec_show_stats_kav save-file\" wrote.";

constexpr const char* footer =
    "Exit status: 0 when all went well, 1 after an error without a status of its own, 2 for a mistake on the command\n"
    "line, 3 when no engine is running or a file cannot be read, 4 when the output cannot be written, 5 when the\n"
    "address cannot be listened on.\n"
    "Environment: KAV_STAT_SEGMENT names the engine's statistics, to tell several engines apart; KAV_STAT_OWNER names "
    "the\n"
    "user, beside root and oneself, whose engine is believed.";

constexpr const char* file_help = "A saved statistics file instead of the running engine";
constexpr const char* rules_help = "A file in TOML that changes thresholds and severities of rules";

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
    command->add_option("SEARCH", options->search, "Only counters with this in their name, metric or meaning");
    command->add_option("--scope", options->scope, "Only counters of this scope")
        ->check(CLI::IsMember({"engine", "peer", "connection", "application"}));
    command->add_option("--unit", options->unit, "Only counters of this unit")->check(CLI::IsMember(unit_words()));
    command->add_option("--kind", options->kind, "Only counters of this kind")->check(CLI::IsMember(kind_words()));
    command->add_flag("--json", options->b_json, "As JSON");
    command->callback([options, &status] { status = run_list(*options); });
}

// Returns the error in a list of scopes, or an empty text.
std::string check_scopes(const std::string& words)
{
    std::string unknown;
    return parse_json_scopes(words, unknown) ? "" : "no such scope: \"" + unknown + "\"";
}

std::string check_diff_scopes(const std::string& words)
{
    DiffChoice choice;
    std::string unknown;
    return parse_diff_scopes(words, choice, unknown) ? "" : "no such scope: \"" + unknown + "\"";
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
    return parse_moment(text, std::time(nullptr)) ? ""
                                                  : "not a moment " + std::string(moment_forms) + ": \"" + text + "\"";
}

// An option for a moment.
CLI::Option* add_moment(CLI::App* command, const char* name, std::optional<std::time_t>& moment, const char* help)
{
    return command
        ->add_option_function<std::string>(
            name, [&moment](const std::string& text) { moment = parse_moment(text, std::time(nullptr)); }, help)
        ->check(CLI::Validator(check_moment, "TIME"));
}

constexpr const char* from_help = "From this moment on";
constexpr const char* to_help = "Up to this moment";

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
    CLI::Option* const file =
        command->add_option("--history", options->file, "A database of \"record\" instead of the running engine");
    CLI::Option* const from = add_moment(command, "--from", options->span.from, from_help)->needs(file);
    CLI::Option* const to = add_moment(command, "--to", options->span.to, to_help)->needs(file);
    if (b_one) {
        add_moment(command, "--at", options->at, "The last sample up to this moment")
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
                     "A document after every so many seconds, each on one line, until SIGTERM or SIGINT")
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
    CLI::App* const command = app.add_subcommand("schema", "The JSON Schema of what kavstat gives as JSON");
    const auto document = std::make_shared<std::string>("statistics");
    command
        ->add_option("--of", *document,
                     "What \"json\" and \"serve\" give, a line of \"json --interval\", or what "
                     "\"health\", \"watch\" and \"diff\" give with --json")
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
                "Switch the collector on; all are, unless --collector.disable-defaults is given")
            ->group("Collectors");
        command
            .add_flag_callback(
                "--no-collector." + name, [wanted, at] { wanted->at(at) = false; }, "Switch the collector off")
            ->group("Collectors");
    }
    command.add_flag("--collector.disable-defaults", *b_none, "Switch off all collectors that are not named")
        ->group("Collectors");
    command
        .add_option("--max-series", choice.max_series,
                    "At most so many series of engine, peers and applications; 0 for no bound")
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
        app.add_subcommand("metrics", "Metrics for Prometheus, as text: engine, peers and applications");
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
    CLI::App* const command = app.add_subcommand("watch", "A live view with rates per second; ? tells its keys");
    const auto options = std::make_shared<WatchOptions>();
    command->add_option("-i,--interval", options->interval, "Seconds between two looks at the engine")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str();
    const std::vector<std::string> pages = watch_page_names();
    options->page = pages.front();
    command->add_option("-p,--page", options->page, "The page to start with")
        ->check(CLI::IsMember(pages))
        ->capture_default_str();
    CLI::Option* const file = command->add_option("-f,--file", options->file, file_help);
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), true);
    file->excludes("--history");
    command->add_option("-s,--sort", options->sort, "What the page's rows are ordered by: a key of its JSON");
    command->add_flag("-r,--reverse", options->b_reverse, "The other way round");
    command->add_option("--filter", options->filter, "Only rows with this in them");
    command->add_option("--rules", options->rules, rules_help);
    command->add_flag("--once", options->b_once, "One report as text, after one interval; as all output to a pipe is");
    command->add_flag("--json", options->b_json, "A line of JSON after every interval");
    command->callback([options, &status] {
        check_span(options->history.span);
        status = run_watch(*options);
    });
}

void add_health(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("health", "What is wrong, where, since when, and what to do; exits as a monitoring plugin");
    const auto options = std::make_shared<HealthOptions>();
    CLI::Option* const files =
        command
            ->add_option(
                "-f,--file", options->files,
                "A saved statistics file instead of the running engine; twice for two moments, the earlier one "
                "first")
            ->allow_extra_args(false)
            ->expected(1, 2);
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), true);
    files->excludes("--history");
    CLI::Option* const since =
        command->add_option("--since", options->since, "A saved statistics file as the earlier moment")
            ->excludes("--history");
    command->add_option("-i,--interval", options->interval, "Seconds between two looks at the running engine")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str()
        ->excludes(files)
        ->excludes(since);
    command->add_option("--rules", options->rules, rules_help);
    command->add_flag("--json", options->b_json, "As JSON");
    command->add_flag("-a,--all", options->b_all, "Every finding, also of a rule that has many");
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
    command->add_flag("--settings", options->b_settings, "As a file of settings, with everything that can be changed");
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
    CLI::App* const command = app.add_subcommand("report", "The page of \"serve\" as one file with its data inside");
    const auto options = std::make_shared<ReportOptions>();
    CLI::Option* const file = command->add_option(
        "FILE", options->file, "A saved statistics file, or one of \"record\", instead of the running engine");
    const auto from = std::make_shared<std::string>();
    const auto to = std::make_shared<std::string>();
    const CLI::Validator is_moment(
        [](const std::string& text) {
            return parse_moment(text, std::time(nullptr))
                       ? ""
                       : "not a moment " + std::string(moment_forms) + ": \"" + text + "\"";
        },
        "TIME");
    command->add_option("--from", *from, "Of a recorded history: not before this")->check(is_moment)->needs(file);
    command->add_option("--to", *to, "Of a recorded history: not after this")->check(is_moment)->needs(file);
    command->add_option("-o,--output", options->output, "Write to this file instead of standard output");
    command->add_option("-i,--interval", options->interval, "Seconds between two looks at the running engine")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str();
    command->add_option("--rules", options->rules, rules_help);
    CLI::Option* const chart =
        command->add_option("--svg", options->chart, "A picture of one chart instead of the page")
            ->check(CLI::IsMember(chart_names()));
    command->add_option("--peer", options->peer, "Whose chart it is, by number, instead of the engine's")->needs(chart);
    command->callback([options, from, to, &status] {
        const std::time_t now = std::time(nullptr);
        options->from = parse_moment(*from, now);
        options->to = parse_moment(*to, now);
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
                return parse_listen_address(text) ? "" : "not an address and a port: \"" + text + "\"";
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
    command->add_option("--history", options->http.history, "A file of \"record\": the page shows its past, too")
        ->check(CLI::ExistingFile);
    command->add_option("--rules", options->rules, rules_help);
    command->add_option("--web-config", options->web_config,
                        "A file with TLS certificate and users, as Prometheus' web configuration");
    command->add_flag("--insecure", options->b_insecure, "Serve other machines without TLS or without passwords");
    command
        ->add_option("--allow-host", options->http.allowed_hosts,
                     "Another name that clients may use for a loopback address; once for each name")
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

void add_record(CLI::App& app, int& status)
{
    CLI::App* const command =
        app.add_subcommand("record", "Record the running engine into an SQLite database until SIGTERM or SIGINT");
    const auto options = std::make_shared<RecordOptions>();
    command->add_option("FILE", options->file, "The database, created when it does not exist")->required();
    CLI::Option* const once = command->add_flag("--once", options->b_once, "One sample, as from cron");
    command->add_option("-i,--interval", options->interval, "Seconds between two samples")
        ->check(CLI::Validator(check_interval, "SECONDS"))
        ->capture_default_str()
        ->excludes(once);
    command->add_flag("--connections", options->b_connections,
                      "Also the connections that changed since the last sample");
    const auto keep = std::make_shared<std::string>(default_keep);
    command->add_option("--keep", *keep, "Keep one sample in each STEP up to each AGE: AGE:STEP,...; or all")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return parse_keep(text) ? "" : "not ages and steps as in \"1d:all,30d:1m,2y:1h\": \"" + text + "\"";
            },
            "AGE:STEP,..."))
        ->capture_default_str();
    const auto size = std::make_shared<std::string>();
    command
        ->add_option("--max-size", *size,
                     "The largest size of the database, with K, M, G or T; the oldest samples are removed")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return parse_size(text).value_or(0) >= least_history_size
                           ? ""
                           : "not a size of 4M or more: \"" + text + "\"";
            },
            "SIZE"));
    command->callback([options, keep, size, &status] {
        options->keep = *parse_keep(*keep);
        options->max_size = size->empty() ? 0 : *parse_size(*size);
        status = run_record(*options);
    });
}

void add_import(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("import", "Import top-application logs into a database of \"record\"");
    const auto files = std::make_shared<std::vector<std::string>>();
    command->add_option("LOG", *files, "The logs, then the database, which is created when it does not exist")
        ->option_text("LOG... FILE REQUIRED")
        ->required()
        ->expected(2, 100000);
    command->callback([files, &status] {
        ImportOptions options{*files, files->back()};
        options.logs.pop_back();
        status = run_import(options);
    });
}

void add_export(CLI::App& app, int& status)
{
    CLI::App* const command = app.add_subcommand("export", "Write a table of a database of \"record\", row by row");
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
    command->add_option("A", options->before, "The earlier moment, a saved statistics file");
    command->add_option("B", options->after,
                        "The later moment, a saved statistics file; the running engine without it");
    add_history(command, std::shared_ptr<HistoryOptions>(options, &options->history), false);
    command->add_flag("-a,--all", options->choice.b_all, "Also what did not change");
    const auto scopes = std::make_shared<std::string>(all_diff_scopes());
    command->add_option("--scope", *scopes, "What is compared, joined by commas")
        ->check(CLI::Validator(check_diff_scopes, "SCOPES"))
        ->capture_default_str();
    command->add_option("-s,--search", options->choice.search, "Only counters with this in their name or meaning");
    command->add_flag("--force", options->b_force, "Compare statistics of different engines, or in the wrong order");
    command->add_flag("--json", options->b_json, "As JSON");
    command->callback([options, scopes, &status] {
        std::string unknown;
        parse_diff_scopes(*scopes, options->choice, unknown);
        if (options->history.file && !options->before.empty()) {
            throw CLI::ExcludesError("A", "--history");
        }
        if (options->history.file ? !options->history.span.from : options->before.empty()) {
            throw CLI::RequiredError(options->history.file ? "--from" : "A");
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
        const bool b_asked_for = app.exit(error) == 0;
        std::cout.flush();
        if (!std::cout) {
            return EXIT_OUTPUT;
        }
        if (b_asked_for) {
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
