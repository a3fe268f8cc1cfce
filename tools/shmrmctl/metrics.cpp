#include "metrics.h"

#include <fmt/format.h>

#include <set>
#include <tuple>
#include <utility>
#include <vector>

namespace shmrmctl {

namespace {

using Label = std::pair<std::string_view, std::string>;
using Labels = std::vector<Label>;

// The length of the UTF-8 character at the start of `s` (1 to 4), or 0 when it is none: a stray
// continuation byte, an overlong or surrogate form, a code point past U+10FFFF, a cut sequence.
std::size_t utf8_length(std::string_view s) {
    const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char c = b(0);
    std::size_t n = 0;
    unsigned char low = 0x80, high = 0xbf;  // the range of the second byte
    if (c < 0x80) return 1;
    if (c >= 0xc2 && c <= 0xdf) n = 2;
    if (c >= 0xe0 && c <= 0xef) {
        n = 3;
        if (c == 0xe0) low = 0xa0;
        if (c == 0xed) high = 0x9f;
    }
    if (c >= 0xf0 && c <= 0xf4) {
        n = 4;
        if (c == 0xf0) low = 0x90;
        if (c == 0xf4) high = 0x8f;
    }
    if (n == 0 || s.size() < n || b(1) < low || b(1) > high) return 0;
    for (std::size_t i = 2; i < n; ++i) {
        if (b(i) < 0x80 || b(i) > 0xbf) return 0;
    }
    return n;
}

class Exposition {
  public:
    explicit Exposition(MetricsFormat format) : format_(format) {}

    void family(std::string_view name, std::string_view help) {
        out_ += fmt::format("# HELP {} {}\n# TYPE {} gauge\n", name, help, name);
    }
    template <typename T>
    void sample(std::string_view name, const Labels& labels, T value) {
        out_ += name;
        if (!labels.empty()) {
            out_ += '{';
            for (std::size_t i = 0; i < labels.size(); ++i) {
                if (i != 0) out_ += ',';
                out_ +=
                    fmt::format("{}=\"{}\"", labels[i].first, escape_label_value(labels[i].second));
            }
            out_ += '}';
        }
        out_ += fmt::format(" {}\n", value);
    }
    std::string finish() {
        if (format_ == MetricsFormat::kOpenMetrics) out_ += "# EOF\n";
        return std::move(out_);
    }

  private:
    MetricsFormat format_;
    std::string out_;
};

Labels group_labels(const Group& g) {
    return {{"group", g.name}};
}
Labels resource_labels(const Group& g, const Resource& r) {
    return {{"group", g.name}, {"type", r.type}, {"name", r.name}};
}
Labels monitor_labels(const Monitor& m) {
    return {{"type", m.type}, {"name", m.name}};
}

// The records whose keys no earlier record of their table has: a series needs keys of its own,
// and a region may hold duplicates (the library only warns about them).
struct Unique {
    std::vector<const Group*> groups;
    std::vector<std::pair<const Group*, const Resource*>> resources;
    std::vector<const Monitor*> monitors;
    std::size_t left_out = 0;
};

Unique unique_records(const Snapshot& s) {
    Unique u;
    std::set<std::string> group_keys;
    std::set<std::tuple<std::string, std::string, std::string>> resource_keys;
    std::set<std::pair<std::string, std::string>> monitor_keys;
    for (const Group& g : s.groups) {
        if (group_keys.insert(g.name).second) {
            u.groups.push_back(&g);
        } else {
            ++u.left_out;
        }
        for (const Resource& r : g.resources) {
            if (resource_keys.emplace(g.name, r.type, r.name).second) {
                u.resources.emplace_back(&g, &r);
            } else {
                ++u.left_out;
            }
        }
    }
    for (const Monitor& m : s.monitors) {
        if (monitor_keys.emplace(m.type, m.name).second) {
            u.monitors.push_back(&m);
        } else {
            ++u.left_out;
        }
    }
    return u;
}

// One family per integer attribute of a record kind: vexshmrm_<kind>_<attribute>.
template <typename Words, typename Records, typename LabelsOf>
void word_families(Exposition& e, std::string_view kind, const Records& records,
                   LabelsOf labels_of) {
    Words::each([&](auto w) {
        const std::string name = fmt::format("vexshmrm_{}_{}", kind, w.name);
        e.family(name,
                 fmt::format("The {} attribute {} (an integer word of the region).", kind, w.name));
        for (const auto& r : records) {
            const auto& [labels, words] = labels_of(r);
            e.sample(name, labels, static_cast<long long>(words.*w.value));
        }
    });
}

}  // namespace

std::string escape_label_value(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    while (!value.empty()) {
        const std::size_t n = utf8_length(value);
        if (n == 0) {
            out += "\xef\xbf\xbd";
            value.remove_prefix(1);
            continue;
        }
        const char c = value[0];
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out.append(value.substr(0, n));
        }
        value.remove_prefix(n);
    }
    return out;
}

MetricsFormat negotiate_metrics(std::string_view accept) {
    const auto split = [](std::string_view s, char separator) {
        std::vector<std::string_view> out;
        for (std::size_t at = 0;;) {
            const std::size_t to = s.find(separator, at);
            std::string_view part = s.substr(at, to == std::string_view::npos ? to : to - at);
            while (!part.empty() && (part.front() == ' ' || part.front() == '\t'))
                part.remove_prefix(1);
            while (!part.empty() && (part.back() == ' ' || part.back() == '\t'))
                part.remove_suffix(1);
            out.push_back(part);
            if (to == std::string_view::npos) return out;
            at = to + 1;
        }
    };
    for (const std::string_view range : split(accept, ',')) {
        const auto params = split(range, ';');
        if (params[0] != "application/openmetrics-text") continue;
        bool refused = false;  // q=0, q=0.0, ...
        for (std::size_t i = 1; i < params.size(); ++i) {
            if (params[i].substr(0, 2) != "q=") continue;
            const std::string_view q = params[i].substr(2);
            refused = !q.empty() && q.find_first_not_of("0.") == std::string_view::npos;
        }
        if (!refused) return MetricsFormat::kOpenMetrics;
    }
    return MetricsFormat::kText;
}

const char* metrics_content_type(MetricsFormat format) {
    return format == MetricsFormat::kOpenMetrics
               ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
               : "text/plain; version=0.0.4; charset=utf-8";
}

std::string metrics_text(const Snapshot* s, MetricsFormat format, const ScrapeFacts& facts) {
    Exposition e(format);
    e.family("vexshmrm_up", "Whether the node's region could be read (1) or not (0).");
    e.sample("vexshmrm_up", {}, s != nullptr ? 1 : 0);
    if (facts.lock_seconds) {
        e.family("vexshmrm_scrape_lock_seconds",
                 "How long this scrape held the region lock to copy the region.");
        e.sample("vexshmrm_scrape_lock_seconds", {}, *facts.lock_seconds);
    }
    if (s == nullptr) return e.finish();

    e.family("vexshmrm_region_size_bytes", "The size of the region's mapping.");
    e.sample("vexshmrm_region_size_bytes", {}, s->size);
    if (!s->has_header) return e.finish();
    const Header& h = s->header;
    e.family("vexshmrm_capacity", "The capacity of a table (resources: the slots of each group).");
    e.sample("vexshmrm_capacity", {{"table", "groups"}}, h.caps.grpmax);
    e.sample("vexshmrm_capacity", {{"table", "resources"}}, h.caps.rscmax);
    e.sample("vexshmrm_capacity", {{"table", "monitors"}}, h.caps.monmax);
    e.family("vexshmrm_records", "The records a table holds, as the region's header counts them.");
    e.sample("vexshmrm_records", {{"table", "groups"}}, h.grpcnt);
    e.sample("vexshmrm_records", {{"table", "monitors"}}, h.moncnt);
    HeaderWords::each([&](auto w) {
        const std::string name = fmt::format("vexshmrm_header_{}", w.name);
        e.family(name, fmt::format("The node-wide value {} of the region's header.", w.name));
        e.sample(name, {}, static_cast<long long>(h.*w.value));
    });

    const Unique u = unique_records(*s);
    e.family("vexshmrm_duplicate_records",
             "Records left out of the other series because an earlier record has their keys.");
    e.sample("vexshmrm_duplicate_records", {}, u.left_out);

    word_families<GroupWords>(e, "group", u.groups, [](const Group* g) {
        return std::pair<Labels, const GroupWords&>(group_labels(*g), *g);
    });
    e.family("vexshmrm_group_info", "A group's texts as labels; the value is always 1.");
    for (const Group* g : u.groups) {
        Labels labels = group_labels(*g);
        labels.emplace_back("sv", g->sv);
        e.sample("vexshmrm_group_info", labels, 1);
    }

    word_families<ResourceWords>(e, "resource", u.resources, [](const auto& gr) {
        return std::pair<Labels, const ResourceWords&>(resource_labels(*gr.first, *gr.second),
                                                       *gr.second);
    });
    e.family("vexshmrm_resource_info", "A resource's texts as labels; the value is always 1.");
    for (const auto& [g, r] : u.resources) {
        Labels labels = resource_labels(*g, *r);
        labels.emplace_back("sv", r->sv);
        e.sample("vexshmrm_resource_info", labels, 1);
    }

    word_families<MonitorWords>(e, "monitor", u.monitors, [](const Monitor* m) {
        return std::pair<Labels, const MonitorWords&>(monitor_labels(*m), *m);
    });
    e.family("vexshmrm_monitor_progress_step", "The progress step a monitor last reported.");
    for (const Monitor* m : u.monitors)
        e.sample("vexshmrm_monitor_progress_step", monitor_labels(*m), m->progress);
    e.family("vexshmrm_monitor_progress_stamp_seconds",
             "The node's tick (seconds since boot, counted in milliseconds in 32 bits, so it "
             "wraps after 49.7 days) when a monitor reached step 3 or 4.");
    for (const Monitor* m : u.monitors) {
        for (const auto& [step, tick] : {std::pair{"3", m->tick3}, std::pair{"4", m->tick4}}) {
            Labels labels = monitor_labels(*m);
            labels.emplace_back("step", step);
            e.sample("vexshmrm_monitor_progress_stamp_seconds", labels, tick / 1000.0);
        }
    }
    return e.finish();
}

}  // namespace shmrmctl
