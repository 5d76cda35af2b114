// Parses the target of a request and checks its host. Nothing in a request is trusted.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavstat {

// A parameter of a query, decoded.
struct HttpParameter
{
    std::string name;
    std::string value; // empty also for a name without "="
};

struct HttpTarget
{
    std::string path;                // decoded; "*" for a request without a path
    std::optional<std::string> host; // of "http://HOST:PORT/path", unchanged
    std::vector<HttpParameter> parameters;

    // The first value of that name.
    std::optional<std::string> first(std::string_view name) const;
};

// "/path?query", "http://host/path?query" or "*". Returns nothing for other texts, and for invalid encodings such as
// that of a NUL.
std::optional<HttpTarget> parse_http_target(std::string_view text);

// Whether the name of the server in a request shows that no page of another site sent it. Such a page can resolve its
// own name to a loopback address, but cannot use another name. host: the name, with or without a port. allowed: names
// in addition to those of loopback.
bool is_own_host(std::string_view host, const std::vector<std::string>& allowed);

// Whether a client can use this name: it is not empty and has no port, brackets or wildcards.
bool is_host_name(std::string_view text);

} // namespace kavstat
