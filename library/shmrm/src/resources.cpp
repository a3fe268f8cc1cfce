// The resource slots of the groups: add, remove, list, the attributes of a resource found by
// group, type and name, and the searches for a resource whose group the caller does not know.
#include "tables.h"
#include "vexshmrm_schema.h"

namespace shmrm {
namespace {

constexpr int kFreeSize = sizeof(rmrsc::free);

struct ResourceWord {
    int rmrsc::*field;
    const char* get_tag;
    const char* set_tag;
};

// The steps of every attribute export: the region, the arguments (`name` and what `args_ok`
// says), the resource lookup, then `act` on the resource found.
template <typename Act>
SHMRM_INLINE int with_resource(const char* tag, const char* grpname, const char* type,
                               const char* name, bool args_ok, Act act) {
    TracedCall call(tag);
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (name == nullptr || !args_ok) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Resource found = find_resource(base, grpname, type, name);
    if (!found) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, tag, "group:{},type:{},name:{} not found", Key::shown(grpname),
                    Key::shown(type), name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    act(*found.rsc);
    return call.exit(SHMRM_OK);
}

SHMRM_INLINE int get(const ResourceWord& w, const char* grpname, const char* type, const char* name,
                     int* out) {
    return with_resource(w.get_tag, grpname, type, name, out != nullptr,
                         [&](rmrsc& rsc) { *out = load(rsc.*w.field); });
}

SHMRM_INLINE int set(const ResourceWord& w, const char* grpname, const char* type, const char* name,
                     int value) {
    return with_resource(w.set_tag, grpname, type, name, true,
                         [&](rmrsc& rsc) { store(rsc.*w.field, value); });
}

}  // namespace
}  // namespace shmrm

using namespace shmrm;

SHMRM_EXPORT int shmrm_addrsc(const char* grpname, const char* type, const char* name) {
    TracedCall call("_addrsc");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (grpname == nullptr || type == nullptr || name == nullptr)
        return call.fail(SHMRM_ERR_PARAM, "invalid param");
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "[in]grpname:{}, type:{}, name:{}", grpname, type,
                name);
    const Groups groups = Groups::of(base);
    const int i = find_group(groups, Key(grpname));
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "grpname:{} not found", grpname);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    rmgrp* grp = groups.at(i);
    const int count = load(grp->rsccnt);
    if (count >= groups.rscmax || count < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "resource count is over({})", count);
        return call.exit(SHMRM_ERR_RSCOVER);
    }
    rmrsc* rsc = Groups::slot(grp, count);
    copy_text(rsc->type, type, SHMRM_NAME_LEN);
    copy_text(rsc->name, name, SHMRM_NAME_LEN);
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "grpname:{}, type:{}, name:{}", grpname, rsc->type,
                rsc->name);
    store(grp->rsccnt, count + 1);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_rmrsc(const char* grpname, const char* type, const char* name) {
    TracedCall call("_rmrsc");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (name == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "[in]grpname:{}, type:{}, name:{}", shown(grpname),
                shown(type), name);
    const Resource found = find_resource(base, grpname, type, name);
    if (!found) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "grpname:{},type:{},name:{} not found",
                    Key::shown(grpname), Key::shown(type), name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    // The slots in use as the search read them: a count read again could disagree.
    remove_record(reinterpret_cast<unsigned char*>(Groups::slot(found.group, 0)), SHMRM_RSC_SIZE,
                  found.slot, found.slots);
    store(found.group->rsccnt, found.slots - 1);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_enumrsc(const char* grpname, char* buf, int* psize) {
    TracedCall call("_enumrsc");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (psize == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    // Every group, or only the first group of the given name.
    const Groups groups = Groups::of(base);
    int first = 0;
    int end = groups.used;
    if (grpname != nullptr) {
        first = find_group(groups, Key(grpname));
        end = first < 0 ? 0 : first + 1;
        if (first < 0) first = 0;
    }
    // Each group's count is read once, when the listing reaches the group.
    int i = first;
    int j = 0;
    int slots = -1;
    auto next = [&]() -> const char* {
        for (; i < end; ++i, j = 0, slots = -1) {
            rmgrp* grp = groups.at(i);
            if (slots < 0) slots = groups.slots_used(grp);
            if (j < slots) return Groups::slot(grp, j++)->name;
        }
        return nullptr;
    };
    return call.exit(write_name_list(buf, psize, next));
}

// The integer attributes: a getter and a setter for each word row of the schema.
#define SHMRM_RESOURCE_WORD(field, shape, field_type, get_type, set_type, getter, setter, get_tag, \
                            set_tag)                                                               \
    SHMRM_IF_WORD(                                                                                 \
        shape,                                                                                     \
        SHMRM_EXPORT int shmrm_##getter(const char* grpname, const char* type, const char* name,   \
                                        get_type* pvalue) {                                        \
            return get(ResourceWord{&rmrsc::field, get_tag, set_tag}, grpname, type, name,         \
                       pvalue);                                                                    \
        } SHMRM_EXPORT int shmrm_##setter(const char* grpname, const char* type, const char* name, \
                                          set_type value) {                                        \
            return set(ResourceWord{&rmrsc::field, get_tag, set_tag}, grpname, type, name, value); \
        })
SHMRM_RESOURCE_ATTRIBUTES(SHMRM_RESOURCE_WORD)
#undef SHMRM_RESOURCE_WORD

SHMRM_EXPORT int shmrm_getrscsv(const char* grpname, const char* type, const char* name,
                                char* buf) {
    return with_resource("_getrscsv", grpname, type, name, buf != nullptr,
                         [&](rmrsc& rsc) { copy_out(buf, rsc.sv, SHMRM_TEXT_LEN); });
}
SHMRM_EXPORT int shmrm_setrscsv(const char* grpname, const char* type, const char* name,
                                const char* value) {
    return with_resource("_setrscsv", grpname, type, name, value != nullptr,
                         [&](rmrsc& rsc) { copy_text(rsc.sv, value, SHMRM_TEXT_LEN); });
}

// The free area keeps no length: a reader gets as many bytes as it asks for, up to 256, and a
// null buffer asks how many there are (without looking the resource up).
SHMRM_EXPORT int shmrm_getrscfree(const char* grpname, const char* type, const char* name,
                                  void* buf, int* plen) {
    const int asked = plen != nullptr ? *plen : 0;
    if (buf == nullptr && name != nullptr && asked > 0 && region() != nullptr) {
        TracedCall call("_getrscfree");
        *plen = kFreeSize;
        return call.exit(SHMRM_OK);
    }
    return with_resource("_getrscfree", grpname, type, name, plen != nullptr && asked > 0,
                         [&](rmrsc& rsc) {
                             int n = asked;
                             if (n > kFreeSize) *plen = n = kFreeSize;
                             std::memcpy(buf, rsc.free, static_cast<std::size_t>(n));
                         });
}
SHMRM_EXPORT int shmrm_setrscfree(const char* grpname, const char* type, const char* name,
                                  const void* data, int len) {
    return with_resource(
        "_setrscfree", grpname, type, name, data != nullptr && len > 0, [&](rmrsc& rsc) {
            std::memcpy(rsc.free, data,
                        static_cast<std::size_t>(len < kFreeSize ? len : kFreeSize));
        });
}

SHMRM_EXPORT int shmrm_getrscgrp(char* grpname, const char* type, const char* name) {
    TracedCall call("_getrscgrp");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (name == nullptr || grpname == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Resource found = find_resource(base, nullptr, type, name);
    if (!found) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "type:{},name:{} not found", Key::shown(type),
                    name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    copy_out(grpname, found.group->name, SHMRM_NAME_LEN);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_getrscinfo(char* grpname, char* rsctype, const char* rscname) {
    TracedCall call("_getrscinfo");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (rscname == nullptr || *rscname == '\0') return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const bool traced = trace_enabled(SHMRM_LOG_PARAM);
    const Resource found = find_resource(
        base, nullptr, nullptr, rscname,
        [&](int slot, const rmrsc& rsc) {
            SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "rscname:{}, prsc[{}].name:{}", rscname, slot,
                        rsc.name);
        },
        traced);
    if (!found) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "name:{} not found", rscname);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    if (grpname != nullptr) {
        SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "grpname:{}", found.group->name);
        copy_out(grpname, found.group->name, SHMRM_NAME_LEN);
    }
    if (rsctype != nullptr) {
        SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "typename:{}", found.rsc->type);
        copy_out(rsctype, found.rsc->type, SHMRM_NAME_LEN);
    }
    return call.exit(SHMRM_OK);
}
