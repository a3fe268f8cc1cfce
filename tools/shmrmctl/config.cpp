#include "config.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pugixml.hpp>

#include "system.h"

namespace shmrmctl {

namespace {

namespace fs = std::filesystem;

// A whole decimal number with an optional sign and white space around it: what the node's
// configuration reader takes as a number.
bool whole_number(std::string_view text, long long& out) {
    constexpr std::string_view kSpace = " \t\r\n";
    const auto first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos) return false;
    text = text.substr(first, text.find_last_not_of(kSpace) - first + 1);
    if (text.front() == '+') text.remove_prefix(1);
    if (text.empty() || text.front() == '+') return false;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out, 10);
    return ec == std::errc() && end == text.data() + text.size() && out >= INT32_MIN &&
           out <= INT32_MAX;
}

std::size_t line_of(const std::string& text, std::ptrdiff_t offset) {
    const auto end = text.begin() + std::clamp<std::ptrdiff_t>(offset, 0, std::ssize(text));
    return static_cast<std::size_t>(std::count(text.begin(), end, '\n')) + 1;
}

}  // namespace

std::string install_directory() {
    const char* path = std::getenv("VEX_INSTALL_PATH");
    return path != nullptr && *path != '\0' ? path : SHMRMCTL_DEFAULT_INSTALL_PATH;
}

std::optional<std::string> configuration_problem() {
    const std::string dir = install_directory();
    const char* set = std::getenv("VEX_INSTALL_PATH");
    const char* where =
        set != nullptr && *set != '\0' ? "" : " (the default; set VEX_INSTALL_PATH or --install)";
    std::error_code error;
    const fs::file_status dir_status = fs::status(dir, error);
    if (dir_status.type() == fs::file_type::not_found) {
        return fmt::format("install directory {}{}: does not exist", dir, where);
    }
    if (error) return fmt::format("install directory {}{}: {}", dir, where, error.message());
    if (!fs::is_directory(dir_status)) {
        return fmt::format("install directory {}{}: not a directory", dir, where);
    }
    const std::string file = (fs::path(dir) / "etc" / "vex.xml").string();
    const fs::file_status file_status = fs::status(file, error);
    if (file_status.type() == fs::file_type::not_found) {
        return fmt::format("configuration {}: does not exist", file);
    }
    if (error) return fmt::format("configuration {}: {}", file, error.message());
    if (!fs::is_regular_file(file_status)) {
        return fmt::format("configuration {}: not a regular file", file);
    }
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return fmt::format("configuration {}: cannot be read: {}", file, sys::error_text(errno));
    const std::string text((std::istreambuf_iterator<char>(in)), {});
    if (in.bad()) return fmt::format("configuration {}: cannot be read", file);

    pugi::xml_document doc;
    const pugi::xml_parse_result parsed =
        doc.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_fragment);
    if (!parsed) {
        return fmt::format("configuration {}, line {}: {}", file, line_of(text, parsed.offset),
                           parsed.description());
    }
    int elements = 0;
    for (const pugi::xml_node node : doc.children()) {
        if (node.type() == pugi::node_element) ++elements;
        if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata) {
            return fmt::format("configuration {}, line {}: text outside the root element", file,
                               line_of(text, node.offset_debug()));
        }
    }
    if (elements != 1) {
        return fmt::format(
            "configuration {}: {}", file,
            elements == 0 ? "no root element (is the file empty?)" : "more than one root element");
    }
    for (const char* key : {"all/num/group", "all/num/resource", "all/num/monitor",
                            "shmrm/log/level", "shmrm/log/size"}) {
        const pugi::xml_node node = doc.child("root").first_element_by_path(key);
        if (!node) continue;  // the library's default
        const bool capacity = std::string_view(key).starts_with("all/");
        long long value = 0;
        if (!whole_number(node.text().get(), value) || (capacity && value < 1)) {
            return fmt::format("configuration {}, line {}: {} is '{}', not {}", file,
                               line_of(text, node.offset_debug()), key, node.text().get(),
                               capacity ? "a number of 1 or more" : "a whole number");
        }
    }
    return std::nullopt;
}

}  // namespace shmrmctl
