// shmrmctl: inspect and drive a node's status region from the command line.
#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "attributes.h"
#include "output.h"
#include "region.h"
#include "render.h"
#include "snapshot.h"
#include "system.h"
#include "terminal.h"
#include "vexshmrm.h"

namespace {

using namespace shmrmctl;

int fail(const std::string& message) {
    std::fprintf(stderr, "shmrmctl: %s\n", message.c_str());
    return 1;
}

// A dump file's snapshot, or a message and nullopt when it is no dump at all.
std::optional<DumpFile> load_dump(const std::string& path) {
    std::string error;
    auto file = read_file(path, error);
    if (!file) {
        fail(error);
        return std::nullopt;
    }
    auto dump = parse_dump(*file, error);
    if (!dump) fail(fmt::format("{}: {}", path, error));
    return dump;
}

int dump_command(const std::string& path, unsigned int timeout_ms) {
    Bytes bytes;
    Failure failure;
    if (!take_region_bytes(timeout_ms, bytes, failure)) return fail(failure.message());
    const Bytes file = encode_dump(bytes, header_caps(bytes));
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(file.data()),
              static_cast<std::streamsize>(file.size()));
    out.close();
    if (!out) return fail(fmt::format("cannot write {}", path));
    std::printf("%zu bytes of region written to %s\n", bytes.size(), path.c_str());
    return 0;
}

int decode_command(const std::string& path, const StatusOptions& options) {
    auto dump = load_dump(path);
    if (!dump) return 1;
    Snapshot s = decode(dump->bytes, dump->caps, sys::view_page());
    s.damage.insert(s.damage.begin(), dump->damage.begin(), dump->damage.end());
    std::string error;
    if (!check_status_options(options, error)) return fail(error);
    if (print_snapshot(s, {}, options) != 0) return 1;
    for (const auto& d : s.damage)
        std::fprintf(stderr, "shmrmctl: %s: %s\n", path.c_str(), d.c_str());
    return s.damage.empty() ? 0 : 1;
}

int check_command(const std::string& path, unsigned int timeout_ms) {
    std::vector<std::string> violations;
    if (path.empty()) {
        Bytes bytes;
        Failure failure;
        if (!take_region_bytes(timeout_ms, bytes, failure)) return fail(failure.message());
        violations = check(bytes, std::nullopt, sys::view_page());
    } else {
        auto dump = load_dump(path);
        if (!dump) return 1;
        violations = dump->damage;
        for (auto& v : check(dump->bytes, dump->caps, sys::view_page()))
            violations.push_back(std::move(v));
    }
    for (const auto& v : violations)
        std::printf("%s\n", printable(v).c_str());
    if (violations.empty()) std::printf("ok\n");
    return violations.empty() ? 0 : 1;
}

// Runs one export (chosen by `run`) attached and under the write or read lock, and reports it.
template <typename Run>
int under_lock(RegionLock::Mode mode, unsigned int timeout_ms, Run run) {
    Attachment attached;
    if (attached.rc() != SHMRM_OK) return fail(Failure{"shmrm_attach", attached.rc()}.message());
    Outcome o;
    {
        RegionLock lock(mode, timeout_ms);
        const char* lock_call = mode == RegionLock::Mode::kWrite ? "shmrm_rwlock" : "shmrm_rolock";
        if (lock.rc() != SHMRM_OK) return fail(Failure{lock_call, lock.rc()}.message());
        o = run();
    }
    if (!o.error.empty()) return fail(o.error);
    if (o.rc != SHMRM_OK) return fail(fmt::format("{}: {}", o.call, result_name(o.rc)));
    if (!o.value.empty() || mode == RegionLock::Mode::kRead) std::printf("%s\n", o.value.c_str());
    return 0;
}

// KIND KEYS... [ATTR [VALUE]]: checks the count of words for the kind.
bool split_record(const std::vector<std::string>& words, std::size_t extra, Kind& kind, Keys& keys,
                  std::string& error) {
    if (words.empty() || !parse_kind(words[0], kind)) {
        error = "the first word must be header, group, resource or monitor";
        return false;
    }
    const std::size_t want = 1 + key_count(kind) + extra;
    if (words.size() != want) {
        static constexpr const char* shapes[] = {"header", "group GROUP",
                                                 "resource GROUP TYPE NAME", "monitor TYPE NAME"};
        error = fmt::format("expected {}{}", shapes[static_cast<int>(kind)],
                            extra == 0 ? "" : (extra == 1 ? " ATTR" : " ATTR VALUE"));
        return false;
    }
    keys = make_keys(
        kind, std::vector<std::string>(words.begin() + 1,
                                       words.begin() + 1 + static_cast<long>(key_count(kind))));
    return true;
}

std::string column_help() {
    Snapshot empty;
    empty.has_header = true;
    std::string out = "\nSections and their columns (for -o):\n";
    for (const Table& t : tables(empty))
        out += fmt::format("  {:9} {}\n", t.title, fmt::join(t.columns, ","));
    out += "Text columns are cut to fit the terminal (COLUMNS when set); never when piped.\n";
    return out;
}

std::string attribute_help() {
    std::string out = "\nAttributes:\n";
    for (const auto& [kind, name] : {std::pair{Kind::kHeader, "header"},
                                     {Kind::kGroup, "group"},
                                     {Kind::kResource, "resource"},
                                     {Kind::kMonitor, "monitor"}}) {
        out += fmt::format("  {:9} {}\n", name, fmt::join(attribute_names(kind), " "));
    }
    out +=
        "'*' as a resource's GROUP or TYPE, or a monitor's TYPE, matches any. free is hex; "
        "maxvalue is GRPMAX,RSCMAX,MONMAX; a monitor's progress reads as STEP TICK3 TICK4.\n";
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"shmrmctl: inspect and drive the node status region"};
    app.require_subcommand(1);
    app.fallthrough();
    std::string install;
    unsigned int timeout_ms = 5000;
    app.add_option("--install", install,
                   "Install directory (etc/vex.xml); default VEX_INSTALL_PATH");
    app.add_option("--timeout", timeout_ms, "Region lock timeout in milliseconds")
        ->capture_default_str();

    auto* hold_cmd =
        app.add_subcommand("hold", "Create the region and keep it until stopped (Ctrl-C, SIGTERM)");

    bool json = false;
    shmrmctl::StatusOptions status_options;
    auto* status_cmd = app.add_subcommand("status", "Print a consistent snapshot of the region");
    status_cmd->add_option("SECTION", status_options.section,
                           "Only this section: region, groups, resources or monitors");
    status_cmd->add_flag("--json", status_options.json, "The snapshot as JSON");
    status_cmd->add_option("-o,--output", status_options.columns,
                           "The columns to show, comma-separated (see --help of status)");
    status_cmd->add_flag("-r,--raw", status_options.raw,
                         "Unaligned: cells one space apart, spaces and the like as \\xHH");
    status_cmd->add_flag("-n,--noheadings", status_options.noheadings,
                         "No section titles or column names");
    status_cmd->add_flag("--notruncate", status_options.notruncate,
                         "Never cut a text to fit the terminal");
    status_cmd->footer(column_help());

    shmrmctl::WatchOptions watch_options;
    auto* watch_cmd = app.add_subcommand("watch", "The status view, refreshed in place (q quits)");
    watch_cmd->add_option("--interval", watch_options.interval_s, "Seconds between refreshes")
        ->capture_default_str()
        ->check(CLI::Range(0.05, 3600.0));

    std::string file;
    auto* dump_cmd = app.add_subcommand("dump", "Write the region's bytes to a dump file");
    dump_cmd->add_option("FILE", file, "Dump file to write")->required();

    auto* decode_cmd = app.add_subcommand("decode", "Print a dump file as status would");
    decode_cmd->add_option("FILE", file, "Dump file to read")->required();
    decode_cmd->add_flag("--json", json, "The snapshot as JSON");

    double track_interval = 1.0;
    auto* track_cmd = app.add_subcommand(
        "track",
        "Print a line for every change (a value, a record added or removed) until stopped");
    track_cmd->add_option("--interval", track_interval, "Seconds between looks at the region")
        ->capture_default_str()
        ->check(CLI::Range(0.05, 3600.0));

    auto* check_cmd = app.add_subcommand(
        "check", "Verify the region's invariants; one line per violation, non-zero exit if any");
    check_cmd->add_option("--file", file, "Check a dump file instead of the region");

    std::vector<std::string> words;
    auto* add_cmd = app.add_subcommand("add",
                                       "Add a record: group GROUP | resource GROUP TYPE "
                                       "NAME | monitor TYPE NAME");
    add_cmd->add_option("RECORD", words, "Kind and keys")->required();
    auto* remove_cmd = app.add_subcommand("remove",
                                          "Remove a record (keys as for add; '*' "
                                          "matches any resource group or type)");
    remove_cmd->add_option("RECORD", words, "Kind and keys")->required();
    auto* get_cmd = app.add_subcommand(
        "get", "Print one attribute, or every attribute of a record: KIND KEYS... [ATTR]");
    get_cmd->add_option("ARGS", words, "Kind, keys and attribute")->required();
    get_cmd->add_flag("--json", json, "The record (or the attribute) as JSON");
    get_cmd->footer(attribute_help());
    auto* set_cmd = app.add_subcommand("set", "Write one attribute: KIND KEYS... ATTR VALUE");
    set_cmd->add_option("ARGS", words, "Kind, keys, attribute and value")->required();
    set_cmd->footer(attribute_help());

    shmrmctl::DemoOptions demo_options;
    auto* demo_cmd =
        app.add_subcommand("demo", "Run a simulated node (a holder and workers) and watch it live");
    demo_cmd->add_flag("--once", demo_options.once, "Print a few snapshots instead of the view");
    demo_cmd->add_option("--seconds", demo_options.seconds, "How long the live view runs")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 86400.0));
    demo_cmd->add_option("--workers", demo_options.workers, "Worker processes")
        ->capture_default_str()
        ->check(CLI::Range(1, 16));
    demo_cmd->add_option("--example", demo_options.example_dir,
                         "Install directory to copy (default: the bundled example)");
    demo_cmd->add_option("--namespace", demo_options.ipc_namespace,
                         "IPC namespace of the demo node (default: a private one)");

    int worker_index = 0;
    double worker_seconds = 0;
    auto* worker_cmd = app.add_subcommand("worker", "");  // the demo's worker processes
    worker_cmd->group("");
    worker_cmd->add_option("--index", worker_index)->check(CLI::Range(0, 1000));
    worker_cmd->add_option("--seconds", worker_seconds)->check(CLI::Range(0.0, 86400.0));

    CLI11_PARSE(app, argc, argv);
    shmrmctl::sys::init_output();
    std::setlocale(LC_CTYPE, "");  // the terminal's character set, for widths and printing
    if (!install.empty()) shmrmctl::sys::set_env("VEX_INSTALL_PATH", install);

    try {
        if (*hold_cmd) return hold();
        if (*status_cmd) return status_command(status_options, timeout_ms);
        if (*track_cmd) return track_command(track_interval, timeout_ms);
        if (*watch_cmd) {
            watch_options.timeout_ms = timeout_ms;
            return watch(watch_options);
        }
        if (*dump_cmd) return dump_command(file, timeout_ms);
        if (*decode_cmd) {
            status_options.json = json;
            return decode_command(file, status_options);
        }
        if (*check_cmd) return check_command(file, timeout_ms);
        if (*demo_cmd) {
            demo_options.timeout_ms = timeout_ms;
            return demo(demo_options, argv);
        }
        if (*worker_cmd) return worker(worker_index, worker_seconds, timeout_ms);

        Kind kind{};
        Keys keys;
        std::string error;
        if (*add_cmd || *remove_cmd) {
            if (!split_record(words, 0, kind, keys, error)) return fail(error);
            const bool adding = add_cmd->parsed();
            return under_lock(RegionLock::Mode::kWrite, timeout_ms, [&] {
                return adding ? add_record(kind, keys) : remove_record(kind, keys);
            });
        }
        if (*get_cmd) {
            // The whole record, or one attribute: read from the region's bytes, not through the
            // exports, which write to the node log.
            const bool whole = parse_kind(words.empty() ? "" : words[0], kind) &&
                               words.size() == 1 + key_count(kind);
            if (!split_record(words, whole ? 0 : 1, kind, keys, error)) return fail(error);
            return get_command(kind, keys, whole ? std::string() : words.back(), json, timeout_ms);
        }
        if (*set_cmd) {
            if (!split_record(words, 2, kind, keys, error)) return fail(error);
            return under_lock(RegionLock::Mode::kWrite, timeout_ms, [&] {
                return set_attribute(kind, keys, words[words.size() - 2], words.back());
            });
        }
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    return 1;
}
