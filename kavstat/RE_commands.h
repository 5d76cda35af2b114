// The commands of kavstat. Each prints to standard output, tells errors on standard error, and returns the program's
// exit status.
#pragma once

#include "RE_http_server.h"
#include "RE_statistics_json.h"
#include "RE_watch_pages.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

enum RE_exit_status : int
{
    RE_EXIT_OK = 0,
    RE_EXIT_ERROR = 1,         // something that has no status of its own
    RE_EXIT_USAGE = 2,         // a mistake on the command line
    RE_EXIT_NO_STATISTICS = 3, // no engine is running, or a file cannot be read
    RE_EXIT_OUTPUT = 4,        // standard output is closed, or what it goes to is full
    RE_EXIT_LISTEN = 5,        // the address cannot be listened on
};

struct RE_list_options
{
    std::string scope;  // of all scopes when empty
    std::string unit;   // any when empty
    std::string kind;   // any when empty
    std::string search; // part of a name or meaning, whatever the case
    bool b_json = false;
};
int run_list(const RE_list_options& options);

struct RE_json_options
{
    std::optional<std::string> file; // the running engine when there is none
    RE_json_scopes scopes;
};
int run_json(const RE_json_options& options);
int run_schema();

struct RE_metrics_options
{
    std::optional<std::string> file; // the running engine when there is none
};
int run_metrics(const RE_metrics_options& options);

struct RE_diff_options
{
    std::string before;
    std::optional<std::string> after; // the running engine when there is none
    bool b_all = false;
    bool b_force = false; // compare what had better not be compared
};
int run_diff(const RE_diff_options& options);

struct RE_serve_options
{
    RE_listen_address address;
    std::vector<std::string> allowed_hosts; // beside those of loopback
};
// Serves until SIGTERM or SIGINT.
int run_serve(const RE_serve_options& options);

struct RE_watch_options
{
    double interval = 1; // seconds between two looks at the engine
    RE_watch_page page = RE_watch_page::engine;
    bool b_once = false; // one report as text
};
// Until the user has seen enough, or SIGTERM, SIGINT or SIGHUP.
int run_watch(const RE_watch_options& options);
