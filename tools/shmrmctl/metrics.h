// A snapshot as metrics for a monitoring system: the Prometheus text exposition format 0.0.4 or
// OpenMetrics 1.0.0. Every series is a gauge; the integer attributes come from the schema rows,
// texts (sv) go into info series with the value 1.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "snapshot.h"

namespace shmrmctl {

enum class MetricsFormat { kText, kOpenMetrics };

// What the scrape measured beside the snapshot.
struct ScrapeFacts {
    std::optional<double> lock_seconds;  // how long the region lock was held for the copy
};

// The exposition of one scrape: vexshmrm_up 0 and nothing else of the region when `s` is null.
std::string metrics_text(const Snapshot* s, MetricsFormat format, const ScrapeFacts& facts = {});

// The format an Accept header asks for: OpenMetrics when it names application/openmetrics-text
// (with a quality above 0), otherwise the text format.
MetricsFormat negotiate_metrics(std::string_view accept);
// The Content-Type of a format.
const char* metrics_content_type(MetricsFormat format);

// A label value as the formats write it between its quotes: backslash, double quote and line
// feed escaped, and bytes that are no UTF-8 replaced by U+FFFD.
std::string escape_label_value(std::string_view value);

}  // namespace shmrmctl
