// shmrmctl: inspect and drive a node's status region from the command line.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <string_view>

#include "attributes.h"
#include "completion.h"
#include "config.h"
#include "list.h"
#include "output.h"
#include "region.h"
#include "render.h"
#include "serve.h"
#include "snapshot.h"
#include "system.h"
#include "terminal.h"
#include "vexshmrm.h"

namespace {

using namespace shmrmctl;

int fail(const std::string& message) {
    return report(message, kExitFailure);
}

void warn(const std::vector<std::string>& warnings) {
    for (const auto& w : warnings)
        std::fprintf(stderr, "shmrmctl: warning: %s\n", w.c_str());
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

// The dump file to `path`, or to standard output for "-". An existing file is kept unless
// `force`.
int dump_command(const std::string& path, bool force, unsigned int timeout_ms) {
    const bool to_stdout = path == "-";
    std::error_code error;
    if (!to_stdout && !force && std::filesystem::exists(path, error)) {
        return report(fmt::format("{} exists; not overwritten", path), kExitFailure,
                      "--force overwrites it; 'dump -' writes to standard output");
    }
    Bytes bytes;
    Failure failure;
    if (!take_region_bytes(timeout_ms, bytes, failure)) return report(failure);
    const Bytes file = encode_dump(bytes, header_caps(bytes));
    if (to_stdout) {
        // Checked with every other write to standard output as the program ends.
        std::fwrite(file.data(), 1, file.size(), stdout);
        return kExitOk;
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return fail(fmt::format("cannot write {}: {}", path, sys::error_text(errno)));
    out.write(reinterpret_cast<const char*>(file.data()),
              static_cast<std::streamsize>(file.size()));
    out.close();
    if (!out) return fail(fmt::format("cannot write {}", path));
    std::printf("%zu bytes of region written to %s\n", bytes.size(), path.c_str());
    return kExitOk;
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
        if (!take_region_bytes(timeout_ms, bytes, failure)) return report(failure);
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
int under_lock(RegionLock::Mode mode, unsigned int timeout_ms,
               const std::vector<std::string>& key_warnings, Run run) {
    if (auto problem = configuration_problem()) return report(*problem, kExitBadConfig);
    Attachment attached;
    if (attached.rc() != SHMRM_OK) return report(Failure{"shmrm_attach", attached.rc()});
    Outcome o;
    {
        RegionLock lock(mode, timeout_ms);
        const char* lock_call = mode == RegionLock::Mode::kWrite ? "shmrm_rwlock" : "shmrm_rolock";
        if (lock.rc() != SHMRM_OK) return report(Failure{lock_call, lock.rc()});
        o = run();
    }
    warn(key_warnings);
    warn(o.warnings);
    if (!o.error.empty()) return report(o.error, o.exit, o.hint);
    if (!o.value.empty() || mode == RegionLock::Mode::kRead) std::printf("%s\n", o.value.c_str());
    return kExitOk;
}

// KIND KEYS... [ATTR [VALUE]]: checks the count of words for the kind, and the length of the
// names (cut under --truncate, with a warning).
int split_record(const std::vector<std::string>& words, std::size_t extra,
                 const WritePolicy& policy, Kind& kind, Keys& keys,
                 std::vector<std::string>& warnings) {
    if (words.empty() || !parse_kind(words[0], kind)) {
        return report(fmt::format("'{}' is no kind of record", words.empty() ? "" : words[0]),
                      kExitUsage, "the first word is header, group, resource or monitor");
    }
    const std::size_t want = 1 + key_count(kind) + extra;
    if (words.size() != want) {
        static constexpr const char* shapes[] = {"header", "group GROUP",
                                                 "resource GROUP TYPE NAME", "monitor TYPE NAME"};
        return report(fmt::format("expected {}{}", shapes[static_cast<int>(kind)],
                                  extra == 0 ? "" : (extra == 1 ? " ATTR" : " ATTR VALUE")),
                      kExitUsage);
    }
    std::vector<std::string> names(words.begin() + 1,
                                   words.begin() + 1 + static_cast<long>(key_count(kind)));
    static constexpr const char* what[4][3] = {
        {}, {"group name"}, {"group name", "type", "name"}, {"type", "name"}};
    for (std::size_t i = 0; i < names.size(); ++i) {
        std::string error;
        if (!fit_text(names[i], SHMRM_NAME_LEN - 1, what[static_cast<int>(kind)][i], policy,
                      warnings, error)) {
            return report(fmt::format("'{}': {}", words[1 + i], error), kExitBadValue);
        }
    }
    keys = make_keys(kind, names);
    return kExitOk;
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

// A validator of an option's number in our words: "'abc' is not a number", "'0.01' is outside
// 0.05 to 3600 seconds". Whole numbers only when `whole`.
CLI::Validator within(double low, double high, const char* unit, bool whole = false) {
    const std::string range = fmt::format("{} to {} {}", low, high, unit);
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            double v = 0;
            long long n = 0;
            const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
            const bool number = whole ? parse_integer(text, std::numeric_limits<long long>::min(),
                                                      std::numeric_limits<long long>::max(), n)
                                      : ec == std::errc() && end == text.data() + text.size();
            if (!number)
                return fmt::format("'{}' is not {}", text, whole ? "a whole number" : "a number");
            if (whole) v = static_cast<double>(n);
            if (v < low || v > high) return fmt::format("'{}' is outside {}", text, range);
            return {};
        },
        range);
}

// The first word of the command line that is no option nor an option's value: the command.
std::string command_word(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view a = argv[i];
        if ((a == "--install" || a == "--timeout") && i + 1 < argc) {
            ++i;
        } else if (!a.starts_with("-")) {
            return std::string(a);
        }
    }
    return {};
}

// The command of that name; null when there is none.
CLI::App* find_command(CLI::App& app, const std::string& name) {
    const auto found = app.get_subcommands([&](CLI::App* a) { return a->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

std::string command_list(CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* sub :
         app.get_subcommands([](CLI::App* a) { return !a->get_group().empty(); }))
        names.push_back(sub->get_name());
    return fmt::format("{}", fmt::join(names, ", "));
}

int run(int argc, char** argv) {
    // Before anything is printed: the help and the version too end their lines with "\n" alone.
    shmrmctl::sys::init_output();
    shmrmctl::sys::follow_parent();
    CLI::App app{"shmrmctl: inspect and drive the node status region", "shmrmctl"};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("shmrmctl ") + SHMRMCTL_VERSION);
    app.footer(exit_code_help());
    std::string install;
    unsigned int timeout_ms = 5000;
    WritePolicy policy;
    app.add_option("--install", install,
                   "Install directory (etc/vex.xml); default VEX_INSTALL_PATH, else " +
                       std::string(SHMRMCTL_DEFAULT_INSTALL_PATH));
    app.add_option("--timeout", timeout_ms, "Region lock timeout in milliseconds")
        ->capture_default_str()
        ->check(within(0, 4294967295.0, "milliseconds", true));
    app.add_flag("--truncate", policy.truncate,
                 "Cut names over 31 bytes and texts over 255 bytes (at a character boundary) "
                 "instead of refusing them");
    app.add_flag("--strict", policy.strict,
                 "Refuse what is otherwise only warned about: an empty name, a duplicate");

    std::string help_topic;
    auto* help_cmd = app.add_subcommand("help", "Show the help of shmrmctl or of one command");
    help_cmd->add_option("COMMAND", help_topic, "The command to explain");

    auto* hold_cmd = app.add_subcommand(
        "hold",
        "Create the region and keep it until stopped (Ctrl-C, SIGTERM); refuses when "
        "one exists");

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
        ->check(within(0.05, 3600.0, "seconds"));

    std::string file;
    bool force = false;
    auto* dump_cmd = app.add_subcommand(
        "dump", "Write the region's bytes to a dump file ('-': standard output)");
    dump_cmd->add_option("FILE", file, "Dump file to write; '-' for standard output")->required();
    dump_cmd->add_flag("--force", force, "Overwrite FILE when it exists");

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

    shmrmctl::ServeOptions serve_options;
    auto* serve_cmd = app.add_subcommand(
        "serve",
        "Serve the status over HTTP (read-only): /metrics, /api/status, /api/events and a page");
    serve_cmd
        ->add_option("--listen", serve_options.listen,
                     "ADDR:PORT to listen on ([ADDR]:PORT for IPv6; port 0: any free one)")
        ->capture_default_str();
    serve_cmd->add_option("--token-file", serve_options.token_file,
                          "Require 'Authorization: Bearer TOKEN', TOKEN read from this file");
    serve_cmd
        ->add_option("--interval", serve_options.interval_s,
                     "Seconds between the event stream's looks at the region")
        ->capture_default_str()
        ->check(within(0.05, 3600.0, "seconds"));

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
        ->check(within(1.0, 86400.0, "seconds"));
    demo_cmd->add_option("--workers", demo_options.workers, "Worker processes")
        ->capture_default_str()
        ->check(within(1, 16, "workers", true));
    demo_cmd->add_option("--example", demo_options.example_dir,
                         "Install directory to copy (default: the bundled example)");
    demo_cmd->add_option("--namespace", demo_options.ipc_namespace,
                         "IPC namespace of the demo node (default: a private one)");

    auto* list_cmd = app.add_subcommand(
        "list", "The nodes on this host: namespaces, region sizes, the processes that map them");
    list_cmd->add_flag("--json", json, "The list as JSON");

    std::string shell;
    auto* completion_cmd = app.add_subcommand("completion", "");  // for the build's scripts
    completion_cmd->group("");
    completion_cmd->add_option("SHELL", shell)->required()->check(CLI::IsMember({"bash", "zsh"}));

    int worker_index = 0;
    double worker_seconds = 0;
    auto* worker_cmd = app.add_subcommand("worker", "");  // the demo's worker processes
    worker_cmd->group("");
    worker_cmd->add_option("--index", worker_index)->check(CLI::Range(0, 1000));
    worker_cmd->add_option("--seconds", worker_seconds)->check(CLI::Range(0.0, 86400.0));

    // An unknown command, or none, before CLI11 could call it "a subcommand is required".
    const std::string command = command_word(argc, argv);
    const bool asks_help = std::any_of(argv + 1, argv + argc, [](const char* a) {
        return std::string_view(a) == "--help" || std::string_view(a) == "-h" ||
               std::string_view(a) == "--version";
    });
    if (!asks_help) {
        if (command.empty()) {
            return report(
                "no command given", kExitUsage,
                fmt::format("one of: {}; 'shmrmctl help' explains them", command_list(app)));
        }
        if (find_command(app, command) == nullptr) {
            return report(fmt::format("unknown command '{}'", command), kExitUsage,
                          fmt::format("the commands are {}; 'shmrmctl help' explains them",
                                      command_list(app)));
        }
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {  // --help, --version
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return report(e.what(), kExitUsage, "'shmrmctl help COMMAND' shows a command's options");
    }
    std::setlocale(LC_CTYPE, "");  // the terminal's character set, for widths and printing
    if (!install.empty()) shmrmctl::sys::set_env("VEX_INSTALL_PATH", install);

    try {
        if (*help_cmd) {
            if (help_topic.empty()) {
                // app.help() would show the help command's own, which was parsed.
                std::printf("%s", app.get_formatter()
                                      ->make_help(&app, "shmrmctl", CLI::AppFormatMode::Normal)
                                      .c_str());
                return kExitOk;
            }
            CLI::App* topic = find_command(app, help_topic);
            if (topic == nullptr || topic->get_group().empty()) {
                return report(fmt::format("unknown command '{}'", help_topic), kExitUsage,
                              fmt::format("the commands are {}", command_list(app)));
            }
            std::printf("%s", topic->help("shmrmctl").c_str());
            return kExitOk;
        }
        if (*hold_cmd) {
            if (auto problem = configuration_problem()) return report(*problem, kExitBadConfig);
            return hold();
        }
        if (*status_cmd) return status_command(status_options, timeout_ms);
        if (*track_cmd) return track_command(track_interval, timeout_ms);
        if (*serve_cmd) {
            // A request waits briefly for the lock: a busy node is reported, not queued behind.
            serve_options.lock_wait_ms = std::min(timeout_ms, serve_options.lock_wait_ms);
            return serve_command(serve_options);
        }
        if (*watch_cmd) {
            watch_options.timeout_ms = timeout_ms;
            return watch(watch_options);
        }
        if (*dump_cmd) return dump_command(file, force, timeout_ms);
        if (*decode_cmd) {
            status_options.json = json;
            return decode_command(file, status_options);
        }
        if (*check_cmd) return check_command(file, timeout_ms);
        if (*demo_cmd) {
            demo_options.timeout_ms = timeout_ms;
            return demo(demo_options, argv);
        }
        if (*list_cmd) return list_command(json);
        if (*completion_cmd) {
            std::fputs(completion_script(app, shell).c_str(), stdout);
            return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 ? 0 : 1;
        }
        if (*worker_cmd) return worker(worker_index, worker_seconds, timeout_ms);

        Kind kind{};
        Keys keys;
        std::vector<std::string> warnings;
        if (*add_cmd || *remove_cmd) {
            if (int bad = split_record(words, 0, policy, kind, keys, warnings)) return bad;
            const bool adding = add_cmd->parsed();
            return under_lock(RegionLock::Mode::kWrite, timeout_ms, warnings, [&] {
                return adding ? add_record(kind, keys, policy) : remove_record(kind, keys);
            });
        }
        if (*get_cmd) {
            // The whole record, or one attribute: read from the region's bytes, not through the
            // exports, which write to the node log.
            const bool whole = parse_kind(words.empty() ? "" : words[0], kind) &&
                               words.size() == 1 + key_count(kind);
            if (int bad = split_record(words, whole ? 0 : 1, policy, kind, keys, warnings))
                return bad;
            warn(warnings);
            return get_command(kind, keys, whole ? std::string() : words.back(), json, timeout_ms);
        }
        if (*set_cmd) {
            if (int bad = split_record(words, 2, policy, kind, keys, warnings)) return bad;
            return under_lock(RegionLock::Mode::kWrite, timeout_ms, warnings, [&] {
                return set_attribute(kind, keys, words[words.size() - 2], words.back(), policy);
            });
        }
    } catch (const std::exception& e) {
        return fail(e.what());
    }
    return kExitFailure;
}

}  // namespace

int main(int argc, char** argv) {
    const int code = run(argc, argv);
    // What could not be written (a full disk, a closed pipe) fails the command, however well the
    // rest went.
    // Line by line, standard output may have failed long before: errno still tells why.
    std::cout.flush();
    const bool flushed = std::fflush(stdout) == 0;
    const int error = errno;
    if (!flushed || std::ferror(stdout) != 0 || !std::cout) {
        std::fprintf(stderr, "shmrmctl: writing standard output: %s\n",
                     error != 0 ? shmrmctl::sys::error_text(error).c_str() : "write error");
        return code == 0 ? 1 : code;
    }
    return code;
}
