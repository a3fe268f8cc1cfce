// The shell completion scripts (`shmrmctl completion bash|zsh`, hidden: the build writes the
// installed scripts with it).
#pragma once

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>

namespace shmrmctl {

// The script for `shell` ("bash" or "zsh"): the subcommands and options of `app`, the kinds of
// record, and each kind's attribute names.
std::string completion_script(CLI::App& app, std::string_view shell);

}  // namespace shmrmctl
