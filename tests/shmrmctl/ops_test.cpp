// What an operator installs and runs beside shmrmctl, driven as real processes: `list`, the
// completion scripts in bash and zsh, the manual pages, the example systemd unit, and a demo
// that leaves nothing behind when its terminal closes or its reader goes away.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "process/process.h"
#include "support/child.h"
#include "support/sandbox.h"
#include "vexshmrm_schema.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using Names = std::set<std::string>;

// A program's path from PATH; empty when it is not installed.
std::string program(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    std::istringstream dirs(std::getenv("PATH") != nullptr ? std::getenv("PATH") : "");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const fs::path p = fs::path(dir) / name;
        if (!dir.empty() && access(p.c_str(), X_OK) == 0) return p.string();
    }
    return {};
}

// Runs a program found on PATH (or given by its path).
vextest::RunResult run(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    args[0] = program(args[0]);
    return vextest::run(args, env, 90000);
}

// A namespace no other test uses.
std::string fresh_namespace(const std::string& what) {
    static int n = 0;
    return "shmrmctlops" + vextest::process_id_text() + "-" + what + std::to_string(n++);
}

std::string ns_env(const std::string& ns) {
    return "VEX_IPC_NAMESPACE=" + ns;
}

std::string read_text(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The processes whose environment names this IPC namespace.
std::vector<long> namespace_processes(const std::string& ns) {
    const std::string entry = ns_env(ns);
    std::vector<long> out;
    std::error_code ec;
    for (const auto& p : fs::directory_iterator("/proc", ec)) {
        const std::string name = p.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string env = read_text(p.path() / "environ");
        std::replace(env.begin(), env.end(), '\0', '\n');
        if (("\n" + env).find("\n" + entry + "\n") != std::string::npos)
            out.push_back(std::stol(name));
    }
    return out;
}

std::vector<std::string> namespace_objects(const std::string& ns) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& p : fs::directory_iterator("/dev/shm", ec)) {
        const std::string name = p.path().filename().string();
        if (name.rfind(ns + ".", 0) == 0) out.push_back(name);
    }
    return out;
}

// Polls `done` a bounded number of times.
bool eventually(const std::function<bool()>& done) {
    for (int i = 0; i < 300; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

// Nothing of a demo in `ns` is left: no process, no named object, not its install directory.
void expect_nothing_left(const std::string& ns, const std::string& install_dir) {
    EXPECT_TRUE(eventually([&] { return namespace_processes(ns).empty(); }))
        << "processes left: " << testing::PrintToString(namespace_processes(ns));
    EXPECT_TRUE(eventually([&] { return namespace_objects(ns).empty(); }))
        << "objects left: " << testing::PrintToString(namespace_objects(ns));
    ASSERT_FALSE(install_dir.empty());
    EXPECT_FALSE(fs::exists(install_dir)) << install_dir;
}

// `shmrmctl hold` in a namespace of its own, with the "ready" line read.
class Holder {
  public:
    explicit Holder(const std::string& ns) : ns_(ns) {
        vex::process::Options options;
        options.env = {ns_env(ns)};
        options.out = vex::process::Stream::pipe;
        process_ = vex::process::Process::start({SHMRMCTL_EXE, "hold"}, options);
        std::string got;
        for (int i = 0; i < 100 && got.find('\n') == std::string::npos; ++i) {
            if (process_.read(got, 100) == vex::process::Read::end) break;
        }
        ready_ = got.find('\n') != std::string::npos;
    }
    ~Holder() { stop(); }
    void stop() {
        if (!process_.started()) return;
        process_.signal(SIGTERM);
        if (!process_.wait(10000)) process_.kill_and_wait();
    }
    bool ready() const { return ready_; }
    long pid() const { return process_.id(); }

  private:
    std::string ns_;
    vex::process::Process process_;
    bool ready_ = false;
};

class Ops : public testing::Test {
  protected:
    void SetUp() override { sandbox_.configure({4, 3, 4}); }
    vextest::Sandbox sandbox_;
};

TEST_F(Ops, ListShowsAHeldRegionWithItsSizeAndTheProcessesThatMapIt) {
    const std::string ns = fresh_namespace("list");
    Holder holder(ns);
    ASSERT_TRUE(holder.ready());
    const auto size = fs::file_size(fs::path("/dev/shm") / (ns + ".oru_vexshmrm_map"));

    const auto table = run({SHMRMCTL_EXE, "list"});
    ASSERT_EQ(table.status, 0) << table.err;
    const std::regex row("(^|\\n)" + ns + " +" + std::to_string(size) +
                         " +\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d +([0-9,]+)");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(table.out, m, row)) << table.out;
    EXPECT_EQ(m[2].str(), std::to_string(holder.pid()));

    const auto listed = run({SHMRMCTL_EXE, "list", "--json"});
    ASSERT_EQ(listed.status, 0) << listed.err;
    const json nodes = json::parse(listed.out)["nodes"];
    const auto node = std::find_if(nodes.begin(), nodes.end(),
                                   [&](const json& n) { return n["namespace"] == ns; });
    ASSERT_NE(node, nodes.end()) << listed.out;
    const json& region = (*node)["region"];
    EXPECT_EQ(region["name"], ns + ".oru_vexshmrm_map");
    EXPECT_EQ(region["size"], size);
    EXPECT_EQ(region["pids"], json::array({holder.pid()}));
    const auto made = std::chrono::system_clock::now();
    std::tm tm{};
    std::istringstream(region["created"].get<std::string>()) >>
        std::get_time(&tm, "%Y-%m-%dT%H:%M:%SZ");
    const auto created = std::chrono::system_clock::from_time_t(timegm(&tm));
    EXPECT_LT(std::chrono::abs(made - created), std::chrono::minutes(5)) << region["created"];
    EXPECT_TRUE(std::find((*node)["lock"]["pids"].begin(), (*node)["lock"]["pids"].end(),
                          json(holder.pid())) != (*node)["lock"]["pids"].end());

    holder.stop();
    const auto after = run({SHMRMCTL_EXE, "list", "--json"});
    ASSERT_EQ(after.status, 0);
    const json remaining = json::parse(after.out);
    for (const json& n : remaining["nodes"])
        EXPECT_NE(n["namespace"], ns) << "a released region is still listed";
}

// ---- Completion

// Each record kind, the keys that address one record, and its attribute names from the rows.
#define OPS_NAME(name, ...) #name,
struct KindRow {
    const char* kind;
    std::vector<std::string> keys;
    Names attributes;
};
const KindRow kKindRows[] = {
    {"header", {}, {SHMRM_HEADER_ATTRIBUTES(OPS_NAME)}},
    {"group", {"web"}, {SHMRM_GROUP_ATTRIBUTES(OPS_NAME)}},
    {"resource", {"web", "ip", "vip"}, {SHMRM_RESOURCE_ATTRIBUTES(OPS_NAME)}},
    {"monitor", {"ping", "gw"}, {SHMRM_MONITOR_ATTRIBUTES(OPS_NAME)}},
};
#undef OPS_NAME

std::string quoted(const std::string& word) {
    return "'" + word + "'";
}

class Completion : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        if (program(GetParam()).empty()) GTEST_SKIP() << GetParam() << " is not installed";
        const auto made = run({SHMRMCTL_EXE, "completion", GetParam()});
        ASSERT_EQ(made.status, 0) << made.err;
        script_ = made.out;
        dir_ = fs::temp_directory_path() / fresh_namespace("completion");
        fs::create_directories(dir_);
        file_ = dir_ / (GetParam() == "zsh" ? "_shmrmctl" : "shmrmctl");
        std::ofstream(file_) << script_;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // What the script offers for the command line `words`, the last one being completed.
    Names complete(const std::vector<std::string>& words) {
        std::string array;
        for (const auto& w : words)
            array += quoted(w) + " ";
        std::string program;
        if (GetParam() == "bash") {
            program = "source " + quoted(file_.string()) + "; COMP_WORDS=(" + array +
                      "); COMP_CWORD=" + std::to_string(words.size() - 1) +
                      "; _shmrmctl; printf '%s\\n' \"${COMPREPLY[@]}\"";
        } else {
            // compadd and _files exist only inside the completion system: stand-ins print.
            program =
                "compadd() { shift; print -l -- \"$@\"; }; _files() { print FILES; }; "
                "source " +
                quoted(file_.string()) + " >/dev/null; words=(" + array +
                "); CURRENT=" + std::to_string(words.size()) + "; _shmrmctl";
        }
        const auto r = run({GetParam(), "-c", program});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        Names offered;
        std::istringstream lines(r.out);
        for (std::string line; std::getline(lines, line);)
            if (!line.empty()) offered.insert(line);
        return offered;
    }

    std::string script_;
    fs::path dir_, file_;
};

TEST_P(Completion, OffersEachKindsAttributesFromTheSchemaAfterItsKeys) {
    for (const KindRow& row : kKindRows) {
        for (const char* verb : {"get", "set"}) {
            std::vector<std::string> words{"shmrmctl", "--timeout", "100", verb, row.kind};
            words.insert(words.end(), row.keys.begin(), row.keys.end());
            words.emplace_back("");
            EXPECT_EQ(complete(words), row.attributes) << verb << " " << row.kind;
            // A prefix narrows them (in zsh the completion system does that, not the script).
            if (GetParam() == "zsh") continue;
            const std::string first = *row.attributes.begin();
            words.back() = first;
            const Names narrowed = complete(words);
            EXPECT_TRUE(narrowed.count(first)) << verb << " " << row.kind;
            for (const auto& n : narrowed)
                EXPECT_EQ(n.rfind(first, 0), 0u) << n;
        }
        // Before the last key there is no attribute to offer.
        if (!row.keys.empty()) {
            std::vector<std::string> words{"shmrmctl", "get", row.kind, ""};
            for (const auto& a : complete(words))
                EXPECT_FALSE(row.attributes.count(a)) << row.kind << ": " << a;
        }
    }
}

TEST_P(Completion, OffersSubcommandsKindsAndEachSubcommandsOwnOptions) {
    struct Case {
        std::vector<std::string> words;
        Names must, must_not;
    };
    const Case cases[] = {
        {{"shmrmctl", ""},
         {"status", "list", "get", "set", "hold", "demo"},
         {"worker", "completion"}},
        {{"shmrmctl", "get", ""}, {"header", "group", "resource", "monitor"}, {}},
        {{"shmrmctl", "add", ""}, {"group", "resource", "monitor"}, {"header"}},
        {{"shmrmctl", "watch", "--"}, {"--interval", "--install"}, {"--once"}},
        {{"shmrmctl", "demo", "--"}, {"--once", "--seconds", "--workers"}, {"--interval"}},
        {{"shmrmctl", "list", "--"}, {"--json"}, {}},
    };
    for (const Case& c : cases) {
        const Names offered = complete(c.words);
        for (const auto& m : c.must)
            EXPECT_TRUE(offered.count(m)) << testing::PrintToString(c.words) << " lacks " << m;
        for (const auto& m : c.must_not)
            EXPECT_FALSE(offered.count(m)) << testing::PrintToString(c.words) << " has " << m;
    }
}

TEST_P(Completion, LoadsAsTheShellLoadsItAndTheBuildWroteTheSameScript) {
    // The scripts the build wrote (and installs) are what the program prints.
    const fs::path built = fs::path(SHMRMCTL_COMPLETIONS) / file_.filename();
    EXPECT_EQ(read_text(built), script_) << built;

    const std::string program =
        GetParam() == "bash"
            ? "source " + quoted(file_.string()) + " && complete -p shmrmctl"
            : "fpath=(" + quoted(dir_.string()) +
                  " $fpath); autoload -Uz compinit; compinit -u -D; print -r -- $_comps[shmrmctl]";
    const auto r = run({GetParam(), "-c", program}, {"HOME=" + dir_.string()});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("_shmrmctl"), std::string::npos) << r.out << r.err;
}

INSTANTIATE_TEST_SUITE_P(Shells, Completion, testing::Values("bash", "zsh"));

// ---- The manual pages

// The subcommands and the global options `--help` lists.
struct HelpWords {
    Names subcommands, options;
};
HelpWords help_words() {
    const auto help = run({SHMRMCTL_EXE, "--help"});
    HelpWords words;
    std::istringstream lines(help.out);
    bool in_subcommands = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("Subcommands:", 0) == 0) in_subcommands = true;
        std::smatch m;
        if (in_subcommands && std::regex_search(line, m, std::regex("^  ([a-z]+) ")))
            words.subcommands.insert(m[1]);
        if (!in_subcommands && std::regex_search(line, m, std::regex("--[a-z-]+")))
            words.options.insert(m[0]);
    }
    return words;
}

std::string render(const fs::path& page, std::string& warnings) {
    const auto r = run({"man", "--warnings", "-l", page.string()}, {"MANWIDTH=80", "MANPAGER=cat"});
    EXPECT_EQ(r.status, 0) << page << ": " << r.err;
    warnings = r.err;
    return r.out;
}

TEST(Manual, PagesRenderWithoutWarningsAndDocumentEveryCommandOptionAndExitStatus) {
    const fs::path pages(SHMRMCTL_MAN_DIR);
    if (!fs::exists(pages / "shmrmctl.1")) GTEST_SKIP() << "scdoc was not found: no pages built";
    if (program("man").empty()) GTEST_SKIP() << "man is not installed";

    std::string warnings;
    const std::string tool = render(pages / "shmrmctl.1", warnings);
    EXPECT_EQ(warnings, "");
    const HelpWords words = help_words();
    ASSERT_TRUE(words.subcommands.count("status") && words.options.count("--timeout"))
        << "no --help to compare";
    for (const auto& w : words.subcommands)  // each begins a paragraph of its own
        EXPECT_NE(tool.find("\n       " + w), std::string::npos) << "shmrmctl.1 lacks " << w;
    for (const auto& w : words.options)
        EXPECT_NE(tool.find(w), std::string::npos) << "shmrmctl.1 lacks " << w;
    for (const char* heading : {"ENVIRONMENT", "EXIT STATUS", "VEX_INSTALL_PATH",
                                "VEX_IPC_NAMESPACE", "NO_COLOR", "SEE ALSO"}) {
        EXPECT_NE(tool.find(heading), std::string::npos) << heading;
    }
    for (int code = 0; code <= 8; ++code)
        EXPECT_NE(tool.find("\n       " + std::to_string(code) + "\n"), std::string::npos)
            << "exit status " << code;

    const std::string config = render(pages / "vex.xml.5", warnings);
    EXPECT_EQ(warnings, "");
    for (const char* key :
         {"/root/all/num/group", "/root/all/num/resource", "/root/all/num/monitor",
          "/root/shmrm/log/level", "/root/shmrm/log/size"}) {
        EXPECT_NE(config.find(key), std::string::npos) << key;
    }
}

// ---- The example systemd unit

TEST(SystemdUnit, ExampleHoldServiceVerifies) {
    if (program("systemd-analyze").empty()) GTEST_SKIP() << "systemd-analyze is not installed";
    const fs::path dir = fs::temp_directory_path() / fresh_namespace("unit");
    fs::create_directories(dir);
    // The unit names the installed program; here the one just built stands in for it.
    std::string unit = read_text(SHMRMCTL_SYSTEMD_UNIT);
    ASSERT_NE(unit.find("ExecStart=/usr/local/bin/shmrmctl hold"), std::string::npos);
    unit = std::regex_replace(unit, std::regex("/usr/local/bin/shmrmctl"), SHMRMCTL_EXE);
    std::ofstream(dir / "shmrmctl-hold.service") << unit;
    const auto r =
        run({"systemd-analyze", "verify", "--man=no", (dir / "shmrmctl-hold.service").string()});
    std::error_code ec;
    fs::remove_all(dir, ec);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");  // unknown keys are only warned about
}

// ---- The demo leaves nothing behind

TEST(Demo, BrokenPipeStopsEveryProcessAndRemovesItsDirectory) {
    const std::string ns = fresh_namespace("pipe");
    const auto r = run(
        {"sh", "-c", std::string(SHMRMCTL_EXE) + " demo --once --namespace " + ns + " | head -3"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.out, m, std::regex("install (\\S+)"))) << r.out;
    expect_nothing_left(ns, m[1]);
}

TEST(Demo, ClosingItsTerminalStopsEveryProcessAndRemovesItsDirectory) {
    if (program("tmux").empty()) GTEST_SKIP() << "tmux is not installed";
    const std::string ns = fresh_namespace("hup");
    const std::string socket = "-L" + ns;
    const auto started = run({"tmux", socket, "new-session", "-d", "-x", "100", "-y", "30",
                              std::string(SHMRMCTL_EXE) +
                                  " demo --seconds 600 --workers 2 "
                                  "--namespace " +
                                  ns});
    ASSERT_EQ(started.status, 0) << started.err;
    // The demo, its holder and two workers run, the live view on the terminal.
    ASSERT_TRUE(eventually([&] { return namespace_processes(ns).size() >= 4; }))
        << testing::PrintToString(namespace_processes(ns));
    std::string install;
    for (const long pid : namespace_processes(ns)) {
        std::string env = read_text("/proc/" + std::to_string(pid) + "/environ");
        std::replace(env.begin(), env.end(), '\0', '\n');
        std::smatch m;
        // The demo's children have its temporary install directory.
        if (std::regex_search(env, m,
                              std::regex("(^|\\n)VEX_INSTALL_PATH=([^\\n]*shmrmctl-demo-[^\\n]*)")))
            install = m[2];
    }
    ASSERT_TRUE(fs::exists(install)) << install;
    EXPECT_FALSE(namespace_objects(ns).empty());

    run({"tmux", socket, "kill-server"});  // the terminal goes: SIGHUP
    expect_nothing_left(ns, install);
}

}  // namespace
