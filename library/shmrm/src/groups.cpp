// The group table: add, remove, list, and the attributes of a group found by its name.
#include "tables.h"

namespace shmrm {
namespace {

// An attribute of the group head: the field and the tags of its getter and setter.
template <typename T>
struct GroupField {
    T rmgrp::*field;
    const char* get_tag;
    const char* set_tag;
};

constexpr GroupField<int> kStat{&rmgrp::stat, "_getgrpstat", "_setgrpstat"};
constexpr GroupField<int> kEnv{&rmgrp::env, "_getgrpenv", "_setgrpenv"};
constexpr GroupField<unsigned short> kFlag{&rmgrp::flag, "_getgrpflag", "_setgrpflag"};
constexpr GroupField<int> kRetrycnt{&rmgrp::retrycnt, "_getgrpretrycnt", "_setgrpretrycnt"};
constexpr GroupField<int> kFocnt{&rmgrp::focnt, "_getgrpfocnt", "_setgrpfocnt"};

// The course of every attribute export: the region, the arguments, the group by its name,
// then `act` on the group found.
template <typename Act>
SHMRM_INLINE int with_group(const char* tag, const char* grpname, bool args_ok, Act act) {
    Call call(tag);
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
    Call call("_addgrp");
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
    Call call("_rmgrp");
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
    Call call("_enumgrp");
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (psize == nullptr) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const Groups groups = Groups::of(base);
    int i = 0;
    return call.exit(write_name_list(buf, psize, [&]() -> const char* {
        return i < groups.used ? groups.at(i++)->name : nullptr;
    }));
}

SHMRM_EXPORT int shmrm_getgrpstat(const char* grpname, int* pvalue) {
    return get(kStat, grpname, pvalue);
}
SHMRM_EXPORT int shmrm_setgrpstat(const char* grpname, int value) {
    return set(kStat, grpname, value);
}
SHMRM_EXPORT int shmrm_getgrpenv(const char* grpname, int* pvalue) {
    return get(kEnv, grpname, pvalue);
}
SHMRM_EXPORT int shmrm_setgrpenv(const char* grpname, int value) {
    return set(kEnv, grpname, value);
}
SHMRM_EXPORT int shmrm_getgrpflag(const char* grpname, unsigned short* pvalue) {
    return get(kFlag, grpname, pvalue);
}
SHMRM_EXPORT int shmrm_setgrpflag(const char* grpname, unsigned short value) {
    return set(kFlag, grpname, value);
}
SHMRM_EXPORT int shmrm_getgrpretrycnt(const char* grpname, int* pvalue) {
    return get(kRetrycnt, grpname, pvalue);
}
SHMRM_EXPORT int shmrm_setgrpretrycnt(const char* grpname, int value) {
    return set(kRetrycnt, grpname, value);
}
SHMRM_EXPORT int shmrm_getgrpfocnt(const char* grpname, int* pvalue) {
    return get(kFocnt, grpname, pvalue);
}
SHMRM_EXPORT int shmrm_setgrpfocnt(const char* grpname, int value) {
    return set(kFocnt, grpname, value);
}

// The text attribute: read with its NUL, written cut to 255 characters and NUL-padded.
SHMRM_EXPORT int shmrm_getgrpsv(const char* grpname, char* buf) {
    return with_group("_getgrpsv", grpname, buf != nullptr,
                      [&](rmgrp& grp) { copy_out(buf, grp.sv, SHMRM_TEXT_LEN); });
}
SHMRM_EXPORT int shmrm_setgrpsv(const char* grpname, const char* value) {
    return with_group("_setgrpsv", grpname, value != nullptr,
                      [&](rmgrp& grp) { copy_text(grp.sv, value, SHMRM_TEXT_LEN); });
}
