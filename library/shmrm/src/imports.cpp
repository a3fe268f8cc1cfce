#include "imports.h"

#include "os.h"
#include "vexutil.h"
#include "vexxml.h"

namespace shmrm {

const Imports kSystemImports = {
    vex::xmllib_init,
    vex::xmllib_load_config,
    vex::xmllib_load_policy,
    vex::xmllib_get_value,
    vex::xmllib_unload_policy,
    vex::xmllib_unload_config,
    vex::xmllib_term,
    vex::loglib_open,
    vex::loglib_write,
    vex::loglib_close,
    vex::VexutilLoadNamespace,
    vex::VexutilCreateMutex,
    vex::VexutilGetInstallPath,
    vex::VexutilCreateNamedFileMapping,
    vex::VexutilOpenNamedFileMapping,
    vex::VexutilRemoveUnusedObject,
    vex::os::map_view,
    vex::os::unmap_view,
    vex::os::close_handle,
    vex::os::last_error,
    vex::os::sleep_ms,
    vex::os::tick_count,
    vex::os::wait_mutex,
    vex::os::release_mutex,
};

namespace detail {
std::atomic<const Imports*> g_imports{&kSystemImports};
}

const Imports* set_imports(const Imports* table) {
    return detail::g_imports.exchange(table ? table : &kSystemImports);
}

}  // namespace shmrm
