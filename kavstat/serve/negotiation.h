// The formats that a client accepts, by the fields Accept and Accept-Encoding of its request (RFC 9110, section 12).
#pragma once

#include "documents/metrics.h"

#include <optional>
#include <string_view>

namespace kavstat {

// The format in which the client prefers metrics. OpenMetrics only when the client names it; the text format of
// Prometheus when it accepts neither. accept: the field's value; several fields are joined by commas.
MetricsFormat preferred_metrics_format(std::string_view accept);

enum class ContentCoding
{
    identity,
    gzip,
};

// The coding that the client prefers; gzip when it accepts both equally. Returns nothing when it accepts neither.
std::optional<ContentCoding> preferred_coding(std::string_view accept_encoding);

} // namespace kavstat
