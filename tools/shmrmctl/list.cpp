// list: the nodes on this host, from the named objects in the shared-memory folder and the
// processes' memory maps. Linux only.
#include "list.h"

#include <fmt/format.h>

#include <cstdio>

#include "region.h"
#include "render.h"

#if defined(__linux__)
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string_view>
#endif

namespace shmrmctl {

#if defined(__linux__)

namespace {

namespace fs = std::filesystem;

constexpr const char* kShmFolder = "/dev/shm";

struct Object {
    std::string name;
    std::uint64_t size = 0;
    std::time_t created = 0;
    std::vector<long> pids;  // the processes that map it
};

struct Node {
    std::string ns;  // empty: no namespace
    std::optional<Object> region, lock;
};

// The namespace of an object named "<ns>.<base>" or "<base>"; nullopt for another name.
std::optional<std::string> namespace_of(std::string_view name, std::string_view base) {
    if (name == base) return std::string();
    if (name.size() > base.size() + 1 && name.ends_with(base) &&
        name[name.size() - base.size() - 1] == '.') {
        return std::string(name.substr(0, name.size() - base.size() - 1));
    }
    return std::nullopt;
}

// Its birth time where the file system keeps one, else its last status change.
std::time_t made_at(const std::string& path) {
    struct statx sx {};
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME | STATX_CTIME, &sx) != 0) return 0;
    return (sx.stx_mask & STATX_BTIME) != 0 ? sx.stx_btime.tv_sec : sx.stx_ctime.tv_sec;
}

// The processes mapping each object of the folder, from /proc/PID/maps (processes this user may
// not read are left out).
std::map<std::string, std::vector<long>> mapping_pids() {
    std::map<std::string, std::vector<long>> out;
    std::error_code ec;
    const std::string prefix = std::string(kShmFolder) + "/";
    for (const auto& entry : fs::directory_iterator("/proc", ec)) {
        const std::string pid_text = entry.path().filename().string();
        if (pid_text.empty() || !std::all_of(pid_text.begin(), pid_text.end(), [](unsigned char c) {
                return std::isdigit(c) != 0;
            })) {
            continue;
        }
        std::ifstream maps(entry.path() / "maps");
        std::string line;
        std::vector<std::string> seen;
        while (std::getline(maps, line)) {
            const auto at = line.find(prefix);
            if (at == std::string::npos) continue;
            std::string name = line.substr(at + prefix.size());
            if (name.ends_with(" (deleted)")) continue;  // no longer the named object
            if (std::find(seen.begin(), seen.end(), name) != seen.end()) continue;
            seen.push_back(name);
            out[name].push_back(std::stol(pid_text));
        }
    }
    for (auto& [name, pids] : out)
        std::sort(pids.begin(), pids.end());
    return out;
}

std::vector<Node> nodes() {
    std::map<std::string, Node> by_ns;
    const auto pids = mapping_pids();
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(kShmFolder, ec)) {
        const std::string name = entry.path().filename().string();
        for (const bool is_region : {true, false}) {
            const auto ns = namespace_of(name, is_region ? kMappingName : kLockObjectName);
            if (!ns) continue;
            Object o;
            o.name = name;
            o.size = entry.file_size(ec);
            o.created = made_at(entry.path().string());
            if (const auto p = pids.find(name); p != pids.end()) o.pids = p->second;
            Node& node = by_ns[*ns];
            node.ns = *ns;
            (is_region ? node.region : node.lock) = std::move(o);
        }
    }
    std::vector<Node> out;
    for (auto& [ns, node] : by_ns)
        out.push_back(std::move(node));
    return out;
}

std::string pids_text(const std::vector<long>& pids) {
    return pids.empty() ? "-" : fmt::format("{}", fmt::join(pids, ","));
}

std::string time_text(std::time_t t) {
    std::tm tm{};
    localtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    return buf;
}

nlohmann::ordered_json object_json(const std::optional<Object>& o) {
    if (!o) return nullptr;
    return {
        {"name", o->name}, {"size", o->size}, {"created", rfc3339(o->created)}, {"pids", o->pids}};
}

}  // namespace

int list_command(bool json) {
    std::error_code ec;
    if (!fs::is_directory(kShmFolder, ec)) {
        std::fprintf(stderr, "shmrmctl: %s: no shared-memory folder\n", kShmFolder);
        return 1;
    }
    const std::vector<Node> found = nodes();
    if (json) {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const Node& n : found) {
            out.push_back(nlohmann::ordered_json{{"namespace", n.ns},
                                                 {"region", object_json(n.region)},
                                                 {"lock", object_json(n.lock)}});
        }
        std::printf("%s\n", nlohmann::ordered_json{{"nodes", out}}.dump(2).c_str());
        return std::ferror(stdout) != 0 ? 1 : 0;
    }
    Table t{"nodes", {"namespace", "size", "created", "pids", "users"}, {}};
    for (const Node& n : found) {
        const std::string ns = n.ns.empty() ? "-" : printable(n.ns);
        if (n.region) {
            t.rows.push_back({ns, std::to_string(n.region->size), time_text(n.region->created),
                              pids_text(n.region->pids), ""});
        } else {
            t.rows.push_back({ns, "-", "-", "-", ""});
        }
        t.rows.back()[4] = n.lock ? pids_text(n.lock->pids) : "-";
    }
    if (t.rows.empty()) {
        std::printf("no node on this host\n");
    } else {
        for (const auto& line : format_table(t))
            std::printf("%s\n", line.c_str());
    }
    return std::ferror(stdout) != 0 ? 1 : 0;
}

#else

int list_command(bool) {
    std::fprintf(stderr, "shmrmctl: list is not supported on this system\n");
    return 1;
}

#endif

}  // namespace shmrmctl
