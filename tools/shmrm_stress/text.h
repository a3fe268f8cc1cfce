// Messages: the arguments written one after another, as an output stream writes them.
#pragma once

#include <sstream>
#include <string>

namespace stress {

template <typename... Parts>
std::string cat(const Parts&... parts) {
    std::ostringstream out;
    (out << ... << parts);
    return out.str();
}

}  // namespace stress
