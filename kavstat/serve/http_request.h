// What a client asks for: the target of its request, taken apart and judged. Nothing in it is trusted.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavstat {

// Of a query, decoded.
struct HttpParameter
{
    std::string name;
    std::string value; // empty also for a name without "="
};

struct HttpTarget
{
    std::string path;                // decoded; "*" for a request that is of no path
    std::optional<std::string> host; // of "http://HOST:PORT/path", unchanged
    std::vector<HttpParameter> parameters;

    // The first value of that name.
    std::optional<std::string> first(std::string_view name) const;
};

// "/path?query", "http://host/path?query" or "*". Nothing when it is none of these, or is not soundly encoded; a NUL is
// not sound.
std::optional<HttpTarget> parse_http_target(std::string_view text);

// Whether a page of another site cannot have asked. Such a page can let its own name lead to a loopback address, but it
// cannot ask under another name. host: what the client takes this server for, with or without a port. allowed: names
// beside those of loopback.
bool is_own_host(std::string_view host, const std::vector<std::string>& allowed);

// Whether a client can use this name: not empty, and without port, brackets and wildcards.
bool is_host_name(std::string_view text);

} // namespace kavstat
