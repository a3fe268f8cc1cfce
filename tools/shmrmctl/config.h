// The node's install directory and its etc/vex.xml, looked at by shmrmctl itself before the
// library reads them: the library can only answer with a result code, and writes no log line
// when the configuration that places its log is what is wrong.
#pragma once

#include <optional>
#include <string>

namespace shmrmctl {

// VEX_INSTALL_PATH when set and not empty, else the directory built in.
std::string install_directory();

// What is wrong with the install directory or its configuration, naming the path and the
// reason ("missing", "not a directory", the XML parser's error and its line, a capacity that is
// not a number); nullopt when the library will find them usable.
std::optional<std::string> configuration_problem();

}  // namespace shmrmctl
