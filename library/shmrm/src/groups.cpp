// The group table: add, remove, list, and the attributes of a group found by its name.
#include "tables.h"
#include "vexshmrm_schema.h"

namespace shmrm {
namespace {

// An attribute of the group head: the field and the tags of its getter and setter.
template <typename T>
struct GroupField {
    T rmgrp::*field;
    const char* get_tag;
    const char* set_tag;
};

// The steps of every attribute export: the region, the arguments, the group by its name,
// then `act` on the group found.
template <typename Act>
SHMRM_INLINE int with_group(const char* tag, const char* grpname, bool args_ok, Act act) {
    TracedCall call(tag);
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (grpname == nullptr || !args_ok) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Groups groups = Groups::of(base);
    const int i = find_group(groups, Key(grpname));
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, tag, "name:{} not found", grpname);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    act(*groups.at(i));
    return call.exit(SHMRM_OK);
}

template <typename T>
SHMRM_INLINE int get(const GroupField<T>& f, const char* grpname, T* out) {
    return with_group(f.get_tag, grpname, out != nullptr,
                      [&](rmgrp& grp) { *out = load(grp.*f.field); });
}

template <typename T>
SHMRM_INLINE int set(const GroupField<T>& f, const char* grpname, T value) {
    return with_group(f.set_tag, grpname, true, [&](rmgrp& grp) { store(grp.*f.field, value); });
}

}  // namespace
}  // namespace shmrm

using namespace shmrm;

SHMRM_EXPORT int shmrm_addgrp(const char* grpname) {
    TracedCall call("_addgrp");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (grpname == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "[in]grpname:{}", grpname);
    rmhead* h = head(base);
    const Groups groups = Groups::of(base);
    const int count = groups.count;
    if (count >= load(h->grpmax) || count < 0 || count >= groups.positions) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "group count is over({})", count);
        return call.exit(SHMRM_ERR_GRPOVER);
    }
    copy_text(groups.at(count)->name, grpname, SHMRM_NAME_LEN);
    store(h->grpcnt, count + 1);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_rmgrp(const char* grpname) {
    TracedCall call("_rmgrp");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (grpname == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "[in]grpname:{}", grpname);
    const Groups groups = Groups::of(base);
    const int i = find_group(groups, Key(grpname));
    if (i < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "name:{} not found", grpname);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    remove_record(groups.first, groups.stride, i, groups.used);
    store(head(base)->grpcnt, groups.used - 1);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_enumgrp(char* buf, int* psize) {
    TracedCall call("_enumgrp");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (psize == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Groups groups = Groups::of(base);
    int i = 0;
    return call.exit(write_name_list(buf, psize, [&]() -> const char* {
        return i < groups.used ? groups.at(i++)->name : nullptr;
    }));
}

// The integer attributes: a getter and a setter for each word row of the schema.
#define SHMRM_GROUP_WORD(field, shape, field_type, get_type, set_type, getter, setter, get_tag,   \
                         set_tag)                                                                 \
    SHMRM_IF_WORD(                                                                                \
        shape,                                                                                    \
        SHMRM_EXPORT int shmrm_##getter(const char* grpname, get_type* pvalue) {                  \
            return get(GroupField<field_type>{&rmgrp::field, get_tag, set_tag}, grpname, pvalue); \
        } SHMRM_EXPORT int shmrm_##setter(const char* grpname, set_type value) {                  \
            return set(GroupField<field_type>{&rmgrp::field, get_tag, set_tag}, grpname, value);  \
        })
SHMRM_GROUP_ATTRIBUTES(SHMRM_GROUP_WORD)
#undef SHMRM_GROUP_WORD

// The text attribute: read with its NUL, written cut to 255 characters and NUL-padded.
SHMRM_EXPORT int shmrm_getgrpsv(const char* grpname, char* buf) {
    return with_group("_getgrpsv", grpname, buf != nullptr,
                      [&](rmgrp& grp) { copy_out(buf, grp.sv, SHMRM_TEXT_LEN); });
}
SHMRM_EXPORT int shmrm_setgrpsv(const char* grpname, const char* value) {
    return with_group("_setgrpsv", grpname, value != nullptr,
                      [&](rmgrp& grp) { copy_text(grp.sv, value, SHMRM_TEXT_LEN); });
}
