#include "serve/http_request.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <charconv>

namespace kavstat {

namespace {

bool equals_ignoring_case(std::string_view one, std::string_view other)
{
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

// Replaces %XX. Returns nothing when a percent sign is not of that form, or encodes a NUL.
std::optional<std::string> decoded(std::string_view text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '%') {
            result += text[at];
            continue;
        }
        const std::string_view digits = text.substr(at + 1, 2);
        unsigned char byte = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
        if (digits.size() != 2 || error != std::errc() || end != digits.data() + 2 || byte == 0) {
            return std::nullopt;
        }
        result += static_cast<char>(byte);
        at += 2;
    }
    return result;
}

// Removes the beginning of the text up to and including `mark`, and returns it without the mark.
std::string_view take_up_to(std::string_view& text, char mark)
{
    const std::size_t at = std::min(text.find(mark), text.size());
    const std::string_view front = text.substr(0, at);
    text.remove_prefix(std::min(at + 1, text.size()));
    return front;
}

bool is_loopback_host(const std::string& host)
{
    in_addr v4{};
    in6_addr v6{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return ntohl(v4.s_addr) >> 24U == IN_LOOPBACKNET;
    }
    if (inet_pton(AF_INET6, host.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_LOOPBACK(&v6) != 0;
    }
    return equals_ignoring_case(host, "localhost");
}

} // namespace

std::optional<std::string> HttpTarget::first(std::string_view name) const
{
    const auto found = std::find_if(parameters.begin(), parameters.end(),
                                    [&](const HttpParameter& parameter) { return parameter.name == name; });
    return found != parameters.end() ? std::optional(found->value) : std::nullopt;
}

std::optional<HttpTarget> parse_http_target(std::string_view text)
{
    HttpTarget target;
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (equals_ignoring_case(text.substr(0, scheme.size()), scheme)) {
            text.remove_prefix(scheme.size());
            const std::string_view host = text.substr(0, text.find_first_of("/?"));
            text.remove_prefix(host.size());
            target.host = host;
        }
    }
    if (text != "*" && !text.starts_with('/') && !target.host) {
        return std::nullopt;
    }
    const std::optional<std::string> path = decoded(take_up_to(text, '?'));
    if (!path) {
        return std::nullopt;
    }
    target.path = path->empty() ? "/" : *path;
    while (!text.empty()) {
        std::string parameter(take_up_to(text, '&'));
        std::replace(parameter.begin(), parameter.end(), '+', ' ');
        std::string_view value = parameter;
        std::optional<std::string> name = decoded(take_up_to(value, '='));
        std::optional<std::string> decoded_value = decoded(value);
        if (!name || !decoded_value) {
            return std::nullopt;
        }
        target.parameters.push_back({std::move(*name), std::move(*decoded_value)});
    }
    return target;
}

bool is_own_host(std::string_view host, const std::vector<std::string>& allowed)
{
    std::string_view name = host;
    const std::size_t before_port = name.find_last_not_of("0123456789");
    if (before_port != std::string_view::npos && name[before_port] == ':') {
        name = name.substr(0, before_port);
    }
    const bool b_brackets = name.starts_with('[') && name.ends_with(']');
    if (b_brackets) {
        name = name.substr(1, name.size() - 2);
    }
    if (b_brackets != (name.find(':') != std::string_view::npos)) {
        return false;
    }
    return is_loopback_host(std::string(name)) || std::any_of(allowed.begin(), allowed.end(), [&](const auto& other) {
               return equals_ignoring_case(name, other);
           });
}

bool is_host_name(std::string_view text)
{
    in6_addr v6{};
    return inet_pton(AF_INET6, std::string(text).c_str(), &v6) == 1 ||
           (!text.empty() && text.find_first_of(" \t/:*[]") == std::string_view::npos);
}

} // namespace kavstat
