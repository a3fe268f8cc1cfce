// The module log: <install path>/log/<name>.log, shared by every process of the node.
// A line is written when its level is at most the level given at open; when the file would
// grow past the size given at open it is renamed to <name>.log.1 and a new file is started.
// Line format: "YYYY-MM-DD hh:mm:ss.mmm <pid> <tid> <LEVEL> <tag> <source>:<line> <text>".
#pragma once

namespace vex {

struct LogFile;
using LogHandle = LogFile*;

// Leaves *handle null when the log cannot be opened.
void loglib_open(const char* name, LogHandle* handle, int level, int size, int reserved1,
                 int reserved2);
void loglib_write(LogHandle handle, int level, int reserved, const char* source, int line,
                  const char* tag, const char* text);
void loglib_close(LogHandle handle);

// The level the handle was opened with (0 for a null handle).
int loglib_level(LogHandle handle);

}  // namespace vex
