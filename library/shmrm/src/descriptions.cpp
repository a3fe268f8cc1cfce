// Descriptions of resources and monitors. A null group name addresses a monitor, whose
// description moves as raw bytes; a group name addresses a resource of that group, whose
// description is text that always ends with a NUL within the bytes copied.
#include "tables.h"

namespace shmrm {
namespace {

constexpr int kDescriptSize = sizeof(rmrsc::descript);
static_assert(sizeof(rmmon::descript) == kDescriptSize);

// The steps of both exports: the region, the arguments and the length, then the record, then
// `act` with the description field and the copy length n (1 to 256).
template <typename Visit, typename Act>
int with_description(const TracedCall& call, const char* grpname, const char* type,
                     const char* name, const void* data, int length, Visit visit, Act act) {
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (type == nullptr || name == nullptr || data == nullptr)
        return call.fail(SHMRM_ERR_PARAM, "invalid param");
    if (length <= 0) return call.fail(SHMRM_ERR_PARAM, "invalid param");
    const auto n = static_cast<std::size_t>(length < kDescriptSize ? length : kDescriptSize);
    char* field = nullptr;
    bool monitor = grpname == nullptr;
    if (monitor) {
        const Monitors monitors = Monitors::of(base);
        const int i = find_monitor(monitors, type, name);
        if (i >= 0) field = monitors.at(i)->descript;
    } else {
        const Resource found =
            find_resource(base, grpname, type, name, visit, trace_enabled(SHMRM_LOG_PARAM));
        if (found) field = found.rsc->descript;
    }
    if (field == nullptr) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "type:{},name:{} not found", type, name);
        return call.exit(SHMRM_ERR_NOTFOUND);
    }
    act(field, n, monitor);
    return call.exit(SHMRM_OK);
}

}  // namespace
}  // namespace shmrm

using namespace shmrm;

SHMRM_EXPORT int shmrm_getdescript(const char* grpname, const char* type, const char* name,
                                   char* buf, const int* plen) {
    TracedCall call("_getdescript");
    const int length = plen != nullptr && region() != nullptr ? *plen : 0;
    auto visit = [&](int slot, const rmrsc& rsc) {
        SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "type:{}, prsc[{}].type:{}", type, slot, rsc.type);
        SHMRM_TRACE(SHMRM_LOG_PARAM, call.tag(), "name:{}, prsc[{}].name:{}", name, slot, rsc.name);
    };
    const void* required = plen != nullptr ? static_cast<const void*>(buf) : nullptr;
    return with_description(call, grpname, type, name, required, length, visit,
                            [&](const char* field, std::size_t n, bool monitor) {
                                if (monitor) {
                                    std::memcpy(buf, field, n);
                                } else {
                                    copy_text(buf, field, n);
                                }
                            });
}

SHMRM_EXPORT int shmrm_setdescript(const char* grpname, const char* type, const char* name,
                                   const char* value, int len) {
    TracedCall call("_setdescript");
    return with_description(call, grpname, type, name, value, len, NoVisit{},
                            [&](char* field, std::size_t n, bool monitor) {
                                if (monitor) {
                                    std::memcpy(field, value, n);
                                } else {
                                    copy_text(field, value, n);
                                }
                            });
}
