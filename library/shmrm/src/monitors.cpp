// The monitor table: add, remove, list, the attributes of a monitor found by type and name,
// the search by name alone, and the progress step with its tick stamps.
#include "tables.h"
#include "vexshmrm_schema.h"

namespace shmrm {
namespace {

// An attribute of the monitor record. 32-bit fields move unchanged; 16-bit counters keep the
// low 16 bits of what is written and are read back sign-extended.
template <typename T>
struct MonitorField {
    T rmmon::*field;
    const char* get_tag;
    const char* set_tag;
};

// The steps of every attribute export: the region, the arguments, the monitor lookup, then
// `act` on the monitor found.
template <typename Act>
SHMRM_INLINE int with_monitor(const char* tag, const char* type, const char* name, bool args_ok,
                              Act act) {
    TracedCall call(tag);
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (name == nullptr || !args_ok) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Monitors monitors = Monitors::of(base);
    const int i = find_monitor(monitors, type, name);
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, tag, "type:{},name:{} not found", Key::shown(type), name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    act(*monitors.at(i));
    return call.exit(SHMRM_OK);
}

template <typename T>
SHMRM_INLINE int get(const MonitorField<T>& f, const char* type, const char* name, int* out) {
    return with_monitor(f.get_tag, type, name, out != nullptr,
                        [&](rmmon& mon) { *out = load(mon.*f.field); });
}

template <typename T>
SHMRM_INLINE int set(const MonitorField<T>& f, const char* type, const char* name, T value) {
    return with_monitor(f.set_tag, type, name, true,
                        [&](rmmon& mon) { store(mon.*f.field, value); });
}

// The progress exports check the two table pointers with messages of their own and name only
// the monitor's name when it is not found.
template <typename Act>
SHMRM_INLINE int with_progress(const char* tag, const char* type, const char* name, bool args_ok,
                               Act act) {
    TracedCall call(tag);
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "_prmhead is not init");
    if (state._prmmon.load(std::memory_order_relaxed) == nullptr)
        return call.fail(SHMRM_ERR_NOTINIT, "_prmmon is not init");
    if (name == nullptr || !args_ok) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Monitors monitors = Monitors::of(base);
    const int i = find_monitor(monitors, type, name);
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, tag, "name:{} not found", name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    act(call, *monitors.at(i));
    return call.exit(SHMRM_OK);
}

}  // namespace
}  // namespace shmrm

using namespace shmrm;

SHMRM_EXPORT int shmrm_addmon(const char* type, const char* name) {
    TracedCall call("_addmon");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (type == nullptr || name == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    rmhead* h = head(base);
    const Monitors monitors = Monitors::of(base);
    const int count = monitors.count;
    if (count >= load(h->monmax) || count < 0 || count >= monitors.positions) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "monitor count is over({})", count);
        return call.exit(SHMRM_ERR_MONOVER);
    }
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "[in]type:{}, name:{}", type, name);
    rmmon* mon = monitors.at(count);
    copy_text(mon->type, type, SHMRM_NAME_LEN);
    copy_text(mon->name, name, SHMRM_NAME_LEN);
    store(h->moncnt, count + 1);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_rmmon(const char* type, const char* name) {
    TracedCall call("_rmmon");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (name == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "[in]type:{}, name:{}", shown(type), name);
    const Monitors monitors = Monitors::of(base);
    const int i = find_monitor(monitors, type, name);
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "type:{},name:{} not found", Key::shown(type),
                    name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    remove_record(reinterpret_cast<unsigned char*>(monitors.first), SHMRM_MON_SIZE, i,
                  monitors.used);
    store(head(base)->moncnt, monitors.used - 1);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_enummon(char* buf, int* psize) {
    TracedCall call("_enummon");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (psize == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Monitors monitors = Monitors::of(base);
    int i = 0;
    return call.exit(write_name_list(buf, psize, [&]() -> const char* {
        return i < monitors.used ? monitors.at(i++)->name : nullptr;
    }));
}

// The integer attributes: a getter and a setter for each word row of the schema.
#define SHMRM_MONITOR_WORD(field, shape, field_type, get_type, set_type, getter, setter, get_tag, \
                           set_tag)                                                               \
    SHMRM_IF_WORD(                                                                                \
        shape,                                                                                    \
        SHMRM_EXPORT int shmrm_##getter(const char* type, const char* name, get_type* pvalue) {   \
            return get(MonitorField<field_type>{&rmmon::field, get_tag, set_tag}, type, name,     \
                       pvalue);                                                                   \
        } SHMRM_EXPORT int shmrm_##setter(const char* type, const char* name, set_type value) {   \
            return set(MonitorField<field_type>{&rmmon::field, get_tag, set_tag}, type, name,     \
                       value);                                                                    \
        })
SHMRM_MONITOR_ATTRIBUTES(SHMRM_MONITOR_WORD)
#undef SHMRM_MONITOR_WORD

SHMRM_EXPORT int shmrm_getmoninfo(char* buf, const char* name) {
    TracedCall call("_getmoninfo");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (name == nullptr || *name == '\0') return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Monitors monitors = Monitors::of(base);
    const int i = find_monitor(monitors, nullptr, name);
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "name:{} not found", name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    if (buf != nullptr) copy_out(buf, monitors.at(i)->type, SHMRM_NAME_LEN);
    return call.exit(SHMRM_OK);
}

// Step 3 and step 4 stamp the tick count, step 0 clears both stamps; every step is stored.
SHMRM_EXPORT int shmrm_setmonprogress(const char* type, const char* name, int value) {
    return with_progress(
        "_setmonprogress", type, name, true, [&](const TracedCall& call, rmmon& mon) {
            switch (value) {
                case 3:
                    store(mon.tick3, imports().tick_count());
                    break;
                case 4:
                    store(mon.tick4, imports().tick_count());
                    break;
                case 0:
                    store(mon.tick3, 0u);
                    store(mon.tick4, 0u);
                    break;
                default:
                    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "progress: {}", value);
                    break;
            }
            store(mon.progress, value);
        });
}

SHMRM_EXPORT int shmrm_getmonprogress(const char* type, const char* name, int* pvalue,
                                      unsigned int* ptick3, unsigned int* ptick4) {
    return with_progress("_getmonprogress", type, name, pvalue != nullptr,
                         [&](const TracedCall&, rmmon& mon) {
                             if (ptick3 != nullptr) *ptick3 = load(mon.tick3);
                             if (ptick4 != nullptr) *ptick4 = load(mon.tick4);
                             *pvalue = load(mon.progress);
                         });
}
