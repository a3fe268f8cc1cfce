# Writes a C++ source that holds a file's bytes: cmake -DINPUT=... -DOUTPUT=... -DSYMBOL=... -P
# embed.cmake. The array ends in an extra 0 byte; SYMBOL##Size is the file's length.
file(READ "${INPUT}" hex HEX)
string(LENGTH "${hex}" digits)
math(EXPR size "${digits} / 2")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
string(REGEX REPLACE "((0x..,){16})" "\\1\n    " bytes "${bytes}")
file(WRITE "${OUTPUT}.tmp" "// Made by embed.cmake from ${INPUT}; do not edit.
#include <cstddef>

namespace shmrmctl::web {
extern const unsigned char ${SYMBOL}[];
extern const std::size_t ${SYMBOL}Size;
const unsigned char ${SYMBOL}[] = {
    ${bytes}0x00};
const std::size_t ${SYMBOL}Size = ${size};
}  // namespace shmrmctl::web
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
