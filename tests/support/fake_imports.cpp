#include "support/fake_imports.h"

#include <ostream>

#include "os.h"

namespace vextest {

namespace {

FakeImports* g_fake = nullptr;
const shmrm::Imports& real() {
    return shmrm::kSystemImports;
}

void record(const char* name, const char* arg = nullptr) {
    g_fake->calls.push_back(arg ? std::string(name) + "(" + arg + ")" : std::string(name));
}

// Records the call; true (with *result) when the test asked for it to fail.
bool failing(const char* name, const char* arg, int* result) {
    record(name, arg);
    return g_fake->should_fail(name, result);
}

int xml_init(const char* m) {
    int r;
    return failing("xmllib_init", m, &r) ? r : real().xmllib_init(m);
}
int xml_load_config(int f) {
    int r;
    return failing("xmllib_load_config", nullptr, &r) ? r : real().xmllib_load_config(f);
}
int xml_load_policy(const char* p) {
    int r;
    return failing("xmllib_load_policy", p, &r) ? r : real().xmllib_load_policy(p);
}
int xml_get_value(const char* key, int type, void* value, int* len) {
    int r;
    if (failing("xmllib_get_value", key, &r)) return r;
    auto it = g_fake->values_.find(key);
    if (it != g_fake->values_.end()) {
        *static_cast<int*>(value) = it->second;
        return 0;
    }
    return real().xmllib_get_value(key, type, value, len);
}
int xml_unload_policy(const char* p) {
    int r;
    return failing("xmllib_unload_policy", p, &r) ? r : real().xmllib_unload_policy(p);
}
int xml_unload_config() {
    int r;
    return failing("xmllib_unload_config", nullptr, &r) ? r : real().xmllib_unload_config();
}
int xml_term() {
    int r;
    return failing("xmllib_term", nullptr, &r) ? r : real().xmllib_term();
}

void log_open(const char* name, vex::LogHandle* h, int level, int size, int a, int b) {
    int r;
    g_fake->log_opens++;
    g_fake->open_level = level;
    g_fake->open_size = size;
    if (failing("loglib_open", name, &r)) return;
    real().loglib_open(name, h, level, size, a, b);
}
void log_write(vex::LogHandle h, int level, int reserved, const char* source, int line,
               const char* tag, const char* text) {
    if (g_fake->keep_lines) g_fake->lines.push_back(TraceLine{level, tag, text});
    real().loglib_write(h, level, reserved, source, line, tag, text);
}
void log_close(vex::LogHandle h) {
    record("loglib_close");
    g_fake->log_closes++;
    real().loglib_close(h);
}

int load_namespace() {
    int r;
    return failing("VexutilLoadNamespace", nullptr, &r) ? 0 : real().VexutilLoadNamespace();
}
void* create_mutex(int flags, const char* name) {
    int r;
    return failing("VexutilCreateMutex", name, &r) ? nullptr
                                                   : real().VexutilCreateMutex(flags, name);
}
int install_path(char* buf, int size) {
    int r;
    return failing("VexutilGetInstallPath", nullptr, &r) ? 0
                                                         : real().VexutilGetInstallPath(buf, size);
}
void* create_mapping(std::intptr_t file, unsigned protect, unsigned hi, unsigned lo,
                     const char* name) {
    int r;
    g_fake->use_fake_error_ = false;
    if (failing("VexutilCreateNamedFileMapping", name, &r)) return nullptr;
    void* h = real().VexutilCreateNamedFileMapping(file, protect, hi, lo, name);
    if (h != nullptr) {
        g_fake->handles_open_++;
        if (g_fake->report_existing_) {
            g_fake->use_fake_error_ = true;
            g_fake->fake_error_ = vex::os::kErrorAlreadyExists;
        }
    }
    return h;
}
void* open_mapping(unsigned access, int inherit, const char* name) {
    int r;
    g_fake->use_fake_error_ = false;
    if (failing("VexutilOpenNamedFileMapping", name, &r)) return nullptr;
    void* h = real().VexutilOpenNamedFileMapping(access, inherit, name);
    if (h != nullptr) g_fake->handles_open_++;
    return h;
}
int remove_unused(const char* name) {
    record("VexutilRemoveUnusedObject", name);
    return real().VexutilRemoveUnusedObject(name);
}
void* map_view(void* mapping, std::size_t* mapped) {
    int r;
    g_fake->use_fake_error_ = false;
    return failing("map_view", nullptr, &r) ? nullptr : real().map_view(mapping, mapped);
}
bool unmap_view(void* view) {
    record("unmap_view");
    return real().unmap_view(view);
}
bool close_handle(void* handle) {
    record("close_handle");
    g_fake->handles_open_--;
    return real().close_handle(handle);
}
unsigned last_error() {
    return g_fake->use_fake_error_ ? g_fake->fake_error_ : real().last_error();
}
void sleep_ms(unsigned ms) {
    record("sleep_ms");
    g_fake->pauses.push_back(ms);
}
unsigned tick_count() {
    return g_fake->has_tick_ ? g_fake->tick_ : real().tick_count();
}
unsigned wait_mutex(void* mutex, unsigned timeout) {
    int r;
    g_fake->use_fake_error_ = false;
    if (failing("wait_mutex", nullptr, &r)) {
        g_fake->use_fake_error_ = true;
        return static_cast<unsigned>(r);
    }
    return real().wait_mutex(mutex, timeout);
}
bool release_mutex(void* mutex) {
    record("release_mutex");
    return real().release_mutex(mutex);
}

const shmrm::Imports kFakeTable = {
    xml_init,          xml_load_config, xml_load_policy, xml_get_value,  xml_unload_policy,
    xml_unload_config, xml_term,        log_open,        log_write,      log_close,
    load_namespace,    create_mutex,    install_path,    create_mapping, open_mapping,
    remove_unused,     map_view,        unmap_view,      close_handle,   last_error,
    sleep_ms,          tick_count,      wait_mutex,      release_mutex,
};

}  // namespace

std::ostream& operator<<(std::ostream& out, const TraceLine& line) {
    return out << "{" << line.level << ", \"" << line.tag << "\", \"" << line.text << "\"}";
}

FakeImports::FakeImports() {
    g_fake = this;
    previous_ = shmrm::set_imports(&kFakeTable);
}

FakeImports::~FakeImports() {
    shmrm::set_imports(previous_);
    g_fake = nullptr;
}

void FakeImports::fail(const std::string& name, int result, unsigned error, int nth) {
    failures_[name] = Failure{result, error, nth};
}

void FakeImports::fail_first(const std::string& name, int count, int result, unsigned error) {
    failures_[name] = Failure{result, error, 0, 0, count};
}

bool FakeImports::should_fail(const std::string& name, int* result) {
    auto it = failures_.find(name);
    if (it == failures_.end()) return false;
    Failure& f = it->second;
    ++f.seen;
    if (f.first > 0 && f.seen > f.first) return false;
    if (f.nth != 0 && f.seen != f.nth) return false;
    *result = f.result;
    fake_error_ = f.error;
    use_fake_error_ = true;
    return true;
}

std::vector<std::string> FakeImports::xml_calls() const {
    std::vector<std::string> out;
    for (const auto& c : calls) {
        if (c.rfind("xmllib_", 0) == 0) out.push_back(c);
    }
    return out;
}

std::vector<std::string> FakeImports::texts(int level) const {
    std::vector<std::string> out;
    for (const auto& l : lines) {
        if (l.level == level) out.push_back(l.text);
    }
    return out;
}

}  // namespace vextest
