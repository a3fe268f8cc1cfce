// Utility services: install path, the node's named mutex and named mapping.
// Object names are prefixed with "<VEX_IPC_NAMESPACE>." when that variable is set at the time
// VexutilLoadNamespace runs (the library calls it when it is loaded).
#pragma once

#include <cstdint>

namespace vex {

inline constexpr int kInstallPathMax = 1024;

// Non-zero when the namespace can name objects (or none is set); otherwise every name built from
// it fails, and the last error is 87 (invalid parameter).
int VexutilLoadNamespace();
// The full object name for a base name, or nullptr when it does not fit buf.
const char* VexutilObjectName(const char* base, char* buf, int size);

// VEX_INSTALL_PATH when set, otherwise the prefix chosen at build time. Non-zero on success:
// the directory exists and its path fits the buffer with its NUL.
int VexutilGetInstallPath(char* buf, int size);
void* VexutilCreateMutex(int flags, const char* name);
// file must be -1 (memory-backed) and protect 4 (read-write). After a success the last error
// is 183 exactly when the mapping existed before the call.
void* VexutilCreateNamedFileMapping(std::intptr_t file, unsigned protect, unsigned size_high,
                                    unsigned size_low, const char* name);
// access 0xF001F (all access); inherit is accepted for compatibility.
void* VexutilOpenNamedFileMapping(unsigned access, int inherit, const char* name);
// Removes the named mapping or mutex when no process holds it any more; non-zero when it did.
int VexutilRemoveUnusedObject(const char* name);

}  // namespace vex
