// The DLL's entry point. A process that cannot obtain the region lock does not get the library:
// the load fails.
#include <windows.h>

#include "shmrm_internal.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE /*module*/, DWORD reason, LPVOID /*reserved*/) {
    switch (reason) {
        case DLL_PROCESS_ATTACH:
            if (shmrm::load()) return TRUE;
            shmrm::unload();
            return FALSE;
        case DLL_PROCESS_DETACH:
            // Also called after a refused attach, when there is nothing left to release.
            shmrm::unload();
            return TRUE;
        default:
            return TRUE;
    }
}
