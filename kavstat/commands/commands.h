// The commands of kavstat. Each prints to standard output, reports errors on standard error, and returns the program's
// exit status.
#pragma once

#include "documents/diff.h"
#include "documents/statistics_json.h"
#include "history/reader.h"
#include "history/thinning.h"
#include "serve/http_server.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kavstat {

enum ExitStatus : int
{
    EXIT_OK = 0,
    EXIT_ERROR = 1,         // an error without its own status
    EXIT_USAGE = 2,         // a mistake on the command line
    EXIT_NO_STATISTICS = 3, // no engine is running, or a file cannot be read
    EXIT_OUTPUT = 4,        // standard output is closed or could not be written
    EXIT_LISTEN = 5,        // the server cannot listen on the address
};

struct ListOptions
{
    std::string scope;  // of all scopes when empty
    std::string unit;   // any when empty
    std::string kind;   // any when empty
    std::string search; // part of a name or meaning, ignoring case
    bool b_json = false;
};
int run_list(const ListOptions& options);

// Recorded statistics instead of the running engine.
struct HistoryOptions
{
    std::optional<std::string> file; // none: not from a history
    std::optional<std::time_t> at;   // the last sample when there is none
    HistorySpan span;                // with an end: from more than one sample

    bool is_span() const { return span.from.has_value() || span.to.has_value(); }
};

struct JsonOptions
{
    std::optional<std::string> file; // the running engine when there is none
    JsonScopes scopes;
    HistoryOptions history;
    std::optional<double> interval; // seconds between two documents, each on one line; one document when there is none
};
int run_json(const JsonOptions& options);
// document: "statistics" or "health".
int run_schema(const std::string& document);

struct MetricsOptions
{
    std::optional<std::string> file; // the running engine when there is none
    MetricsChoice choice;
};
int run_metrics(const MetricsOptions& options);

struct DiffOptions
{
    std::string before; // empty with a history
    HistoryOptions history;
    std::optional<std::string> after; // the running engine when there is none
    DiffChoice choice;
    bool b_force = false; // also compare different engines, or in the wrong order
    bool b_json = false;
};
int run_diff(const DiffOptions& options);

struct HealthOptions
{
    HistoryOptions history;
    std::vector<std::string> files;   // the running engine when there is none; the earlier one first when there are two
    std::optional<std::string> since; // the earlier moment, a saved file
    double interval = 2;              // seconds between two looks at the running engine
    std::optional<std::string> rules; // the file of settings
    bool b_json = false;
    bool b_all = false; // all findings of a rule that has many
};
// Returns a HealthStatus, as monitoring plugins do.
int run_health(const HealthOptions& options);

struct RulesOptions
{
    std::optional<std::string> rules; // the file of settings
    bool b_settings = false;          // print such a file
};
int run_rules(const RulesOptions& options);

struct ReportOptions
{
    std::optional<std::string> file;   // saved or recorded; the running engine when there is none
    HistorySpan span;                  // of a recorded history
    std::optional<std::string> output; // a file; standard output when there is none
    double interval = 2;               // seconds between two looks at the running engine
    std::optional<std::string> rules;  // the file of settings
    std::string chart;                 // a picture of this one instead of the page
    std::optional<int> peer;           // whose chart it is, by number; the engine's when there is none
};
int run_report(const ReportOptions& options);

struct ServeOptions
{
    ListenAddress address;
    HttpOptions http;
    std::optional<std::string> web_config; // the file with TLS and users
    bool b_insecure = false;               // serve others without them
    std::optional<std::string> rules;      // the file of rule settings
};
// Serves until SIGTERM or SIGINT.
int run_serve(const ServeOptions& options);

struct RecordOptions
{
    std::string file;
    double interval = 10; // seconds between two samples
    bool b_once = false;
    bool b_connections = false;
    Keep keep;
    long long max_size = 0; // bytes; 0 for any
};
// Records until SIGTERM or SIGINT.
int run_record(const RecordOptions& options);

struct ImportOptions
{
    std::vector<std::string> logs;
    std::string file;
    long long max_size = 0; // bytes; 0 for any
};
int run_import(const ImportOptions& options);

struct ExportOptions
{
    std::string file;
    std::string table;
    bool b_json_lines = false;
    HistorySpan span;
};
int run_export(const ExportOptions& options);

struct WatchOptions
{
    HistoryOptions history;
    double interval = 1;             // seconds between two looks at the engine
    std::string page;                // the first one when empty
    std::optional<std::string> file; // the running engine when there is none
    std::string sort;                // the key of a column; the page's own when empty
    bool b_reverse = false;
    std::string filter;
    std::optional<std::string> rules; // a file of settings
    bool b_once = false;              // one report as text
    bool b_json = false;              // a line of JSON for each look
};
// Runs until the user quits, or until SIGTERM, SIGINT or SIGHUP.
int run_watch(const WatchOptions& options);

} // namespace kavstat
