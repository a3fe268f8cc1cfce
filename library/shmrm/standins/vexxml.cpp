#include "vexxml.h"

#include <pugixml.hpp>

#include <charconv>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "os.h"
#include "vexutil.h"

namespace vex {
namespace {

struct XmlState {
    std::mutex mutex;
    bool started = false;
    bool loaded = false;
    pugi::xml_document doc;
    std::set<std::string, std::less<>> policies;

    void drop_config() {
        doc.reset();
        policies.clear();
        loaded = false;
    }
};

XmlState& state() {
    static XmlState s;
    return s;
}

bool is_xml_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// A whole decimal number with an optional sign, surrounding white space ignored.
bool parse_int32(std::string_view text, std::int32_t* out) {
    while (!text.empty() && is_xml_space(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && is_xml_space(text.back()))
        text.remove_suffix(1);
    const std::size_t sign = !text.empty() && (text[0] == '+' || text[0] == '-') ? 1 : 0;
    if (text.size() <= sign || text[sign] < '0' || text[sign] > '9') return false;
    if (text[0] == '+') text.remove_prefix(1);  // from_chars takes only '-'
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, *out, 10);
    return ec == std::errc() && ptr == end;
}

// The path components of a key after "/root/": the policy first. Fails on empty components.
bool split_key(std::string_view key, std::vector<std::string>* parts) {
    constexpr std::string_view kRoot = "/root/";
    if (key.substr(0, kRoot.size()) != kRoot) return false;
    key.remove_prefix(kRoot.size());
    for (;;) {
        const auto slash = key.find('/');
        parts->emplace_back(key.substr(0, slash));
        if (parts->back().empty()) return false;
        if (slash == std::string_view::npos) return true;
        key.remove_prefix(slash + 1);
    }
}

// Parsed as a fragment, so that text outside the root element is kept and can be refused here:
// a well-formed document is one element with nothing but markup beside it.
bool single_root(const pugi::xml_document& doc) {
    int elements = 0;
    for (const pugi::xml_node node : doc.children()) {
        if (node.type() == pugi::node_element) ++elements;
        if (node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata) return false;
    }
    return elements == 1;
}

}  // namespace

int xmllib_init(const char* module) {
    if (module == nullptr) return kXmlBadArgument;
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    s.started = true;
    return 0;
}

int xmllib_load_config(int flags) {
    if (flags != 0) return kXmlBadArgument;
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.started) return kXmlNotStarted;

    char path[kInstallPathMax];
    if (VexutilGetInstallPath(path, kInstallPathMax) == 0) return kXmlNoInstallPath;
    const char sep[2] = {os::path_separator(), '\0'};
    std::string file = std::string(path) + sep + "etc" + sep + "vex.xml";

    // Only a regular file: the parser would try to read a directory or a pipe whole.
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) return kXmlNoFile;
    pugi::xml_document doc;
    const pugi::xml_parse_result result =
        doc.load_file(file.c_str(), pugi::parse_default | pugi::parse_fragment);
    switch (result.status) {
        case pugi::status_ok:
            break;
        // GCOVR_EXCL_START: the file went, or could not be read, just after the check above
        case pugi::status_file_not_found:
        case pugi::status_io_error:
        case pugi::status_out_of_memory:
            return kXmlNoFile;
            // GCOVR_EXCL_STOP
        default:
            return kXmlMalformed;
    }
    if (!single_root(doc)) return kXmlMalformed;
    s.drop_config();
    s.doc = std::move(doc);
    s.loaded = true;
    return 0;
}

int xmllib_load_policy(const char* policy) {
    if (policy == nullptr) return kXmlBadArgument;
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.started || !s.loaded) return kXmlNotStarted;
    if (*policy == '\0' || std::strchr(policy, '/') != nullptr) return kXmlNoPolicy;
    if (!s.doc.child("root").child(policy)) return kXmlNoPolicy;
    s.policies.emplace(policy);
    return 0;
}

int xmllib_get_value(const char* key, int type, void* value, int* len) {
    if (key == nullptr || value == nullptr || len == nullptr) return kXmlBadArgument;
    if (type != kXmlTypeInt32 || *len < static_cast<int>(sizeof(std::int32_t))) {
        return kXmlBadArgument;
    }
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.started || !s.loaded) return kXmlNotStarted;

    std::vector<std::string> parts;
    if (!split_key(key, &parts)) return kXmlNoKey;
    if (s.policies.find(parts.front()) == s.policies.end()) return kXmlNoPolicy;

    // Child by child from the policy element: a key never leaves its policy.
    pugi::xml_node node = s.doc.child("root");
    for (const std::string& name : parts)
        node = node.child(name.c_str());
    if (!node) return kXmlNoKey;

    std::int32_t number = 0;
    if (!parse_int32(node.text().get(), &number)) return kXmlBadValue;
    std::memcpy(value, &number, sizeof(number));
    *len = static_cast<int>(sizeof(number));
    return 0;
}

int xmllib_unload_policy(const char* policy) {
    if (policy == nullptr) return kXmlBadArgument;
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.started || !s.loaded) return kXmlNotStarted;
    auto it = s.policies.find(std::string_view(policy));
    if (it == s.policies.end()) return kXmlNoPolicy;
    s.policies.erase(it);
    return 0;
}

int xmllib_unload_config() {
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.started || !s.loaded) return kXmlNotStarted;
    s.drop_config();
    return 0;
}

int xmllib_term() {
    XmlState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.started) return kXmlNotStarted;
    s.drop_config();
    s.started = false;
    return 0;
}

}  // namespace vex
