// The reading commands' output for people and scripts: status (sections, columns, raw), get of
// one attribute or a whole record, and track (one line per change).
#pragma once

#include <string>

#include "attributes.h"
#include "render.h"
#include "snapshot.h"

namespace shmrmctl {

struct StatusOptions {
    std::string section;  // one of section_names(); empty: all
    std::string columns;  // -o: comma-separated column names; empty: all
    bool json = false;
    bool raw = false;
    bool noheadings = false;
    bool notruncate = false;
};

// Whether the options name a known section and known columns; `error` says which are known.
bool check_status_options(const StatusOptions& options, std::string& error);
// Prints a snapshot as status does; the exit status (1 when the output cannot be written).
int print_snapshot(const Snapshot& s, const ViewOptions& view, const StatusOptions& options);

int status_command(const StatusOptions& options, unsigned int timeout_ms);
// One attribute's value, or (attribute empty) every attribute as name=value lines or JSON.
int get_command(Kind kind, const Keys& keys, const std::string& attribute, bool json,
                unsigned int timeout_ms);
// Until stopped: a line for every change, every `interval_s` seconds.
int track_command(double interval_s, unsigned int timeout_ms);

}  // namespace shmrmctl
