// SIGINT and SIGTERM as a request to stop, for the commands that run until told otherwise.
#pragma once

namespace shmrmctl {

void install_stop_handlers();
bool stop_requested();
void request_stop();
// Sleeps up to `seconds`; returns early (false) when a stop was requested.
bool pause_for(double seconds);

}  // namespace shmrmctl
