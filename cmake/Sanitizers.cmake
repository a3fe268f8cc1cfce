# VEX_SANITIZE: empty, "address;undefined", "thread", or "coverage"; "fuzzer" adds libFuzzer's
# coverage instrumentation to every target (the fuzz targets link libFuzzer itself).
set(VEX_SANITIZE "" CACHE STRING "Sanitizers or coverage instrumentation for every target")

foreach(kind IN LISTS VEX_SANITIZE)
  if(kind STREQUAL "address")
    add_compile_options(-fsanitize=address -fno-omit-frame-pointer)
    add_link_options(-fsanitize=address)
  elseif(kind STREQUAL "undefined")
    add_compile_options(-fsanitize=undefined -fno-sanitize-recover=undefined
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=undefined)
  elseif(kind STREQUAL "thread")
    add_compile_options(-fsanitize=thread)
    add_link_options(-fsanitize=thread)
  elseif(kind STREQUAL "fuzzer")
    add_compile_options(-fsanitize=fuzzer-no-link)
  elseif(kind STREQUAL "coverage")
    # Threads of one test share the counters; atomic updates keep each block's count consistent
    # with its arcs (racy ones can make gcov derive negative counts, which its readers reject).
    add_compile_options(--coverage -fprofile-update=atomic -O0)
    add_link_options(--coverage -fprofile-update=atomic)
  else()
    message(FATAL_ERROR "unknown VEX_SANITIZE entry: ${kind}")
  endif()
endforeach()
