// The region lifecycle: create, attach, detach, delete, clear, and the capacity loader.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "region_layout.h"
#include "shmrm_internal.h"
#include "vexxml.h"

namespace shmrm {

namespace {

constexpr int kAttempts = 5;
constexpr unsigned kAttemptPause = 1000;  // ms
// Region bytes for these capacities, or -1 when they are not usable (below 1, or a region of
// 2 GiB or more).
std::int64_t region_bytes(const Capacities& c) {
    if (c.grpmax < 1 || c.rscmax < 1 || c.monmax < 1) return -1;
    const auto geo = geometry(c);
    return geo ? geo->size : -1;
}

class InitLock {
  public:
    InitLock() { state.init_lock.enter(); }
    ~InitLock() { state.init_lock.leave(); }
    InitLock(const InitLock&) = delete;
    InitLock& operator=(const InitLock&) = delete;
};

void read_capacity(const TracedCall& call, const char* key, int fallback, int* out) {
    int len = sizeof(int);
    int r = imports().xmllib_get_value(key, vex::kXmlTypeInt32, out, &len);
    if (r != 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_get_value({}) failed(ret:{})", key, r);
        *out = fallback;
    }
}

// Reads the table capacities from the policy "all"; 0, or the code its caller reports.
int loadinfo(Capacities* caps) {
    TracedCall call("_loadinfo");
    const Imports& im = imports();
    char path[1024];
    if (im.VexutilGetInstallPath(path, static_cast<int>(sizeof path)) == 0) {
        return call.fail(SHMRM_ERR_INSTALLPATH, "VexutilGetInstallPath() failed.");
    }
    int r = im.xmllib_load_policy("all");
    if (r != 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_load_policy(all) failed(ret:{})", r);
        *caps = Capacities{128, 16, 128};
        return call.exit(SHMRM_OK);
    }
    read_capacity(call, "/root/all/num/group", 128, &caps->grpmax);
    read_capacity(call, "/root/all/num/resource", 16, &caps->rscmax);
    read_capacity(call, "/root/all/num/monitor", 16, &caps->monmax);
    if ((r = im.xmllib_unload_policy("all")) != 0)
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_unload_policy(all) failed(ret:{})", r);
    if ((r = im.xmllib_load_policy("shmrm")) != 0)
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_load_policy(shmrm) failed(ret:{})", r);
    if ((r = im.xmllib_unload_policy("shmrm")) != 0)
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_unload_policy(shmrm) failed(ret:{})", r);
    if (region_bytes(*caps) < 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(),
                    "invalid capacities(group:{}, resource:{}, monitor:{})", caps->grpmax,
                    caps->rscmax, caps->monmax);
        return call.exit(SHMRM_ERR_PARAM);
    }
    return call.exit(SHMRM_OK);
}

// Steps shared by create and attach: start the XML library, load the configuration, open the
// log, load the capacities, release the XML library, size the region. Returns 0 or the result
// to return; `call` has written its ENTER line once the log is open.
int prepare(TracedCall& call, Capacities* caps) {
    const Imports& im = imports();
    if (im.xmllib_init(kLogName) != 0) return SHMRM_ERR_XMLINIT;
    if (im.xmllib_load_config(0) != 0) {
        im.xmllib_term();
        return SHMRM_ERR_XMLCONFIG;
    }
    log_open();
    call.enter();
    int r = loadinfo(caps);
    if (r != 0) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "shmrm_loadinfo() failed(ret:{})", r);
        call.exit(SHMRM_ERR_LOADINFO);
        im.xmllib_unload_config();
        im.xmllib_term();
        log_close();
        return SHMRM_ERR_LOADINFO;
    }
    if ((r = im.xmllib_unload_config()) != 0)
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_unload_config() failed(ret:{})", r);
    if ((r = im.xmllib_term()) != 0)
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "xmllib_term() failed(ret:{})", r);
    state.region_size.store(static_cast<int>(region_bytes(*caps)), std::memory_order_relaxed);
    return SHMRM_OK;
}

// Maps the whole mapping and publishes it; 0, or SHMRM_ERR_MAPVIEW with the handle closed.
int map_region(const TracedCall& call, void** handle, const Capacities& caps, bool attacher) {
    const Imports& im = imports();
    const int size = state.region_size.load(std::memory_order_relaxed);
    std::size_t mapped = 0;
    auto* view = static_cast<unsigned char*>(im.map_view(*handle, &mapped));
    if (view == nullptr) {
        const int error = static_cast<int>(im.last_error());
        if (attacher) {
            SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "MapViewOfFile() failed(errno:{})", error);
        } else {
            SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "MapViewOfFile failed(errno:{})", error);
        }
    } else if (mapped < static_cast<std::size_t>(size)) {
        // Another process made the region for smaller capacities: using it would reach past
        // its end.
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "region too small(mapped:{}, size:{})",
                    static_cast<long long>(mapped), size);
        im.unmap_view(view);
        view = nullptr;
    }
    if (view == nullptr) {
        call.exit(SHMRM_ERR_MAPVIEW);
        im.close_handle(*handle);
        *handle = nullptr;
        log_close();
        return SHMRM_ERR_MAPVIEW;
    }
    const Geometry geo = *geometry(caps);  // checked when the capacities were loaded
    const auto stride = static_cast<std::size_t>(geo.group_stride);
    const auto monitors = static_cast<std::size_t>(geo.monitors_at);
    auto whole = [](std::size_t bytes, std::size_t record) {
        return static_cast<int>(std::min<std::size_t>(bytes / record, INT_MAX));
    };
    state.layout = Layout{mapped,
                          caps.grpmax,
                          caps.rscmax,
                          caps.monmax,
                          whole(mapped - SHMRM_HEAD_SIZE, stride),
                          whole(mapped - monitors, SHMRM_MON_SIZE)};
    state._prmgrp.store(view + SHMRM_HEAD_SIZE, std::memory_order_relaxed);
    state._prmmon.store(view + monitors, std::memory_order_relaxed);
    state._prmhead.store(view, std::memory_order_release);
    return SHMRM_OK;
}

// Writes this process's capacities into the header. An existing region whose header names other
// ones (0 after a clear is no capacity at all) is losing records to one of the two
// configurations: that is said in the log.
void write_capacities(const TracedCall& call, unsigned char* base, const Capacities& caps) {
    rmhead* h = head(base);
    const Capacities found{load(h->grpmax), load(h->rscmax), load(h->monmax)};
    const bool cleared = found.grpmax == 0 && found.rscmax == 0 && found.monmax == 0;
    if (!cleared && (found.grpmax != caps.grpmax || found.rscmax != caps.rscmax ||
                     found.monmax != caps.monmax)) {
        SHMRM_TRACE(SHMRM_LOG_WARNING, call.tag(),
                    "region capacities(group:{}, resource:{}, monitor:{}) differ from the "
                    "configured ones(group:{}, resource:{}, monitor:{}); the configured ones are "
                    "written",
                    found.grpmax, found.rscmax, found.monmax, caps.grpmax, caps.rscmax,
                    caps.monmax);
    }
    store(h->grpmax, caps.grpmax);
    store(h->rscmax, caps.rscmax);
    store(h->monmax, caps.monmax);
}

// Unmaps the view and closes this process's mapping handles.
void release_region() {
    const Imports& im = imports();
    unsigned char* view = state._prmhead.exchange(nullptr, std::memory_order_acq_rel);
    state._prmgrp.store(nullptr, std::memory_order_relaxed);
    state._prmmon.store(nullptr, std::memory_order_relaxed);
    im.unmap_view(view);
    for (void** handle : {&state.create_handle, &state.attach_handle}) {
        if (*handle != nullptr) im.close_handle(*handle);
        *handle = nullptr;
    }
}

}  // namespace

}  // namespace shmrm

using namespace shmrm;

SHMRM_EXPORT int shmrm_create(void) {
    InitLock lock;
    TracedCall call("_create", TracedCall::Silent{});
    if (!state.loaded) return SHMRM_ERR_NOTINIT;
    if (region() != nullptr) {
        call.enter();
        SHMRM_TRACE(SHMRM_LOG_WARNING, call.tag(), "already init");
        return call.exit(SHMRM_OK);
    }
    Capacities caps;
    if (int r = prepare(call, &caps); r != SHMRM_OK) return r;

    const Imports& im = imports();
    const int size = state.region_size.load(std::memory_order_relaxed);
    unsigned error = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        state.create_handle =
            im.VexutilCreateNamedFileMapping(-1, 4, 0, static_cast<unsigned>(size), kMapName);
        error = im.last_error();
        if (state.create_handle != nullptr) break;
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "VexutilCreateNamedFileMapping failed(errno:{})",
                    static_cast<int>(error));
        im.sleep_ms(kAttemptPause);
    }
    if (state.create_handle == nullptr) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "VexutilCreateNamedFileMapping failed(errno:{})",
                    static_cast<int>(im.last_error()));
        call.exit(SHMRM_ERR_CREATEMAP);
        log_close();
        return SHMRM_ERR_CREATEMAP;
    }
    // A new mapping comes from the system zero-filled, so its pages are left untouched; this
    // also keeps a second creator's capacities from being wiped by the first one.
    if (error == vex::os::kErrorAlreadyExists) {
        SHMRM_TRACE(SHMRM_LOG_INFO, call.tag(), "VexutilCreateNamedFileMapping(use)");
    } else {
        SHMRM_TRACE(SHMRM_LOG_INFO, call.tag(), "VexutilCreateNamedFileMapping(new)");
    }
    if (int r = map_region(call, &state.create_handle, caps, false); r != SHMRM_OK) return r;
    write_capacities(call, region(), caps);
    SHMRM_TRACE(SHMRM_LOG_INFO, call.tag(), "SIZE:{}", size);
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_attach(void) {
    InitLock lock;
    TracedCall call("_attach", TracedCall::Silent{});
    if (!state.loaded) return SHMRM_ERR_NOTINIT;
    if (region() != nullptr) {
        call.enter();
        ++state.attach_count;
        SHMRM_TRACE(SHMRM_LOG_WARNING, call.tag(), "already init");
        return call.exit(SHMRM_OK);
    }
    Capacities caps;
    if (int r = prepare(call, &caps); r != SHMRM_OK) return r;

    const Imports& im = imports();
    state.attach_handle = im.VexutilOpenNamedFileMapping(0xF001F, 1, kMapName);
    if (state.attach_handle == nullptr) {
        SHMRM_TRACE(SHMRM_LOG_ERROR, call.tag(), "VexutilOpenNamedFileMapping() failed(errno:{})",
                    static_cast<int>(im.last_error()));
        call.exit(SHMRM_ERR_OPENMAP);
        log_close();
        return SHMRM_ERR_OPENMAP;
    }
    if (int r = map_region(call, &state.attach_handle, caps, true); r != SHMRM_OK) return r;
    write_capacities(call, region(), caps);
    ++state.attach_count;
    SHMRM_TRACE(SHMRM_LOG_INFO, call.tag(), "SIZE:{}",
                state.region_size.load(std::memory_order_relaxed));
    return call.exit(SHMRM_OK);
}

SHMRM_EXPORT int shmrm_detach(void) {
    InitLock lock;
    TracedCall call("_detach");
    if (region() == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    if (--state.attach_count < 0) {
        state.attach_count = 0;
    } else if (state.attach_count > 0) {
        return call.exit(SHMRM_OK);
    }
    release_region();
    call.exit(SHMRM_OK);
    log_close();
    return SHMRM_OK;
}

SHMRM_EXPORT int shmrm_delete(void) {
    InitLock lock;
    TracedCall call("_delete");
    if (region() == nullptr) {
        call.fail(SHMRM_ERR_NOTINIT, "not init");
        log_close();
        return SHMRM_ERR_NOTINIT;
    }
    release_region();
    call.exit(SHMRM_OK);
    log_close();
    return SHMRM_OK;
}

SHMRM_EXPORT int shmrm_clear(void) {
    TracedCall call("shmrm_clear", TracedCall::Silent{});
    unsigned char* base = region();
    if (base == nullptr) return call.fail(SHMRM_ERR_NOTINIT, "not init");
    auto size = static_cast<std::size_t>(state.region_size.load(std::memory_order_relaxed));
    std::memset(base, 0, size < state.layout.mapped ? size : state.layout.mapped);
    SHMRM_TRACE(SHMRM_LOG_INFO, call.tag(), "shmrm clear.");
    return call.exit(SHMRM_OK);
}
