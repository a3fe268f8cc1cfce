// list: the nodes on this host (Linux only).
#pragma once

namespace shmrmctl {

// Prints every namespace with a region or a region lock in the shared-memory folder: the
// region's size, when it was made, the processes that map it, and those that have the lock
// mapped (the library loaded). Returns the exit status.
int list_command(bool json);

}  // namespace shmrmctl
