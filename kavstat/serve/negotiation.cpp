#include "serve/negotiation.h"

#include <strings.h>

#include <algorithm>
#include <string>

namespace kavstat {

namespace {

constexpr int full_weight = 1000;

bool is_same_word(std::string_view one, std::string_view other)
{
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

std::string_view trimmed(std::string_view text)
{
    const std::size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) {
        return {};
    }
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

// Calls `use` for each part between the marks.
template <typename Use>
void for_each_part(std::string_view text, char mark, const Use& use)
{
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(mark), text.size());
        use(trimmed(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// "0.5" is 500. A weight that is not of that form is 0.
int weight_of(std::string_view text)
{
    if (text.empty() || text.size() > 5 || (text[0] != '0' && text[0] != '1') || (text.size() > 1 && text[1] != '.')) {
        return 0;
    }
    int weight = (text[0] - '0') * full_weight;
    int digit_weight = full_weight / 10;
    for (const char digit : text.substr(std::min<std::size_t>(text.size(), 2))) {
        if (digit < '0' || digit > '9') {
            return 0;
        }
        weight += (digit - '0') * digit_weight;
        digit_weight /= 10;
    }
    return weight <= full_weight ? weight : 0;
}

// One element of such a field: a word, its weight, and the value of its parameter "version".
struct Acceptable
{
    std::string_view word;
    std::string_view version;
    int weight = full_weight;
};

template <typename Use>
void for_each_acceptable(std::string_view field, const Use& use)
{
    for_each_part(field, ',', [&](std::string_view element) {
        Acceptable found;
        bool b_first = true;
        for_each_part(element, ';', [&](std::string_view part) {
            const std::size_t equal = std::min(part.find('='), part.size());
            const std::string_view name = trimmed(part.substr(0, equal));
            std::string_view value = trimmed(part.substr(std::min(equal + 1, part.size())));
            if (b_first) {
                found.word = part;
            } else if (is_same_word(name, "q")) {
                found.weight = weight_of(value);
            } else if (is_same_word(name, "version")) {
                if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
                    value = value.substr(1, value.size() - 2);
                }
                found.version = value;
            }
            b_first = false;
        });
        if (!found.word.empty()) {
            use(found);
        }
    });
}

// The client's preference for a media type: the weight of the most specific element that matches it.
struct Wanted
{
    int closeness = 0; // 0 when no element matches, 3 when one names the type
    int weight = 0;
};

Wanted wanted(std::string_view accept, std::string_view type, std::string_view version)
{
    const std::string any_subtype = std::string(type.substr(0, type.find('/'))) + "/*";
    Wanted best;
    for_each_acceptable(accept, [&](const Acceptable& one) {
        int closeness = 0;
        if (is_same_word(one.word, type) && (one.version.empty() || one.version == version)) {
            closeness = 3;
        } else if (is_same_word(one.word, any_subtype)) {
            closeness = 2;
        } else if (one.word == "*/*") {
            closeness = 1;
        }
        if (closeness > best.closeness || (closeness == best.closeness && one.weight > best.weight)) {
            best = {closeness, one.weight};
        }
    });
    return best;
}

struct CodingWeights
{
    int gzip = 0;
    int identity = 1; // accepted without being named
};

CodingWeights coding_weights(std::string_view accept_encoding)
{
    std::optional<int> gzip;
    std::optional<int> identity;
    std::optional<int> any;
    for_each_acceptable(accept_encoding, [&](const Acceptable& one) {
        if (is_same_word(one.word, "gzip") || is_same_word(one.word, "x-gzip")) {
            gzip = one.weight;
        } else if (is_same_word(one.word, "identity")) {
            identity = one.weight;
        } else if (one.word == "*") {
            any = one.weight;
        }
    });
    CodingWeights weights;
    weights.gzip = gzip.value_or(any.value_or(0));
    weights.identity = identity.value_or(any && *any == 0 ? 0 : 1);
    return weights;
}

} // namespace

MetricsFormat preferred_metrics_format(std::string_view accept)
{
    const Wanted open = wanted(accept, "application/openmetrics-text", "1.0.0");
    const Wanted text = wanted(accept, "text/plain", "0.0.4");
    return open.closeness == 3 && open.weight > 0 && open.weight >= text.weight ? MetricsFormat::openmetrics
                                                                                : MetricsFormat::prometheus;
}

std::optional<ContentCoding> preferred_coding(std::string_view accept_encoding)
{
    const CodingWeights weights = coding_weights(accept_encoding);
    if (weights.gzip > 0 && weights.gzip >= weights.identity) {
        return ContentCoding::gzip;
    }
    return weights.identity > 0 ? std::optional(ContentCoding::identity) : std::nullopt;
}

} // namespace kavstat
