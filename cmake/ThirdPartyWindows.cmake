# GoogleTest and pugixml for the Windows cross build, compiled from Debian's sources with their
# own flags (the project's warning flags are added after this file); shmrmctl's header-only
# libraries from Debian's packages.
#
# GoogleTest: the sources Debian's googletest package installs.
# pugixml: the source package, fetched into the build tree by apt's own tools (scripts/deps.sh
# adds the deb-src entry this needs) and never kept in the repository.

set(VEX_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources for the cross build")
if(VEX_BUILD_TESTS)
  if(NOT EXISTS ${VEX_GOOGLETEST_SOURCE}/CMakeLists.txt)
    message(FATAL_ERROR "no GoogleTest sources in ${VEX_GOOGLETEST_SOURCE}: run scripts/deps.sh")
  endif()
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  # GoogleTest's own Win32 threading, the same for the library and for the tests that use it.
  set(gtest_disable_pthreads ON CACHE BOOL "" FORCE)
  add_subdirectory(${VEX_GOOGLETEST_SOURCE} ${PROJECT_BINARY_DIR}/_deps/googletest
                   EXCLUDE_FROM_ALL SYSTEM)
endif()

set(pugixml_dir ${PROJECT_BINARY_DIR}/_deps/pugixml)
if(NOT EXISTS ${pugixml_dir}/src/pugixml.cpp)
  set(download ${PROJECT_BINARY_DIR}/_deps/pugixml-download)
  file(REMOVE_RECURSE ${download})
  file(MAKE_DIRECTORY ${download})
  message(STATUS "Fetching the pugixml source package")
  execute_process(COMMAND apt-get source --download-only pugixml
                  WORKING_DIRECTORY ${download} RESULT_VARIABLE fetched
                  OUTPUT_QUIET ERROR_VARIABLE fetch_error)
  file(GLOB orig ${download}/pugixml_*.orig.tar.*)
  if(NOT fetched EQUAL 0 OR NOT orig)
    message(FATAL_ERROR "apt-get source pugixml failed (run scripts/deps.sh): ${fetch_error}")
  endif()
  file(ARCHIVE_EXTRACT INPUT ${orig} DESTINATION ${download}/unpacked)
  file(GLOB_RECURSE found ${download}/unpacked/*/src/pugixml.cpp)
  list(GET found 0 found)
  get_filename_component(found ${found} DIRECTORY)
  get_filename_component(found ${found} DIRECTORY)
  file(REMOVE_RECURSE ${pugixml_dir})
  file(RENAME ${found} ${pugixml_dir})
  file(REMOVE_RECURSE ${download})
endif()
add_library(pugixml STATIC ${pugixml_dir}/src/pugixml.cpp)
add_library(pugixml::pugixml ALIAS pugixml)
target_include_directories(pugixml SYSTEM PUBLIC ${pugixml_dir}/src)

# CLI11, nlohmann-json and fmt (header-only): the directories Debian's packages install, copied
# into the build tree because the cross compiler must not search /usr/include (the glibc
# headers are there). Targets of the names their CMake packages give the POSIX build.
set(VEX_HEADER_ONLY_ROOT /usr/include CACHE PATH
    "Where CLI/, nlohmann/ and fmt/ are (libcli11-dev, nlohmann-json3-dev, libfmt-dev)")
set(header_only_dir ${PROJECT_BINARY_DIR}/_deps/include)
foreach(dir CLI nlohmann fmt)
  if(NOT EXISTS ${VEX_HEADER_ONLY_ROOT}/${dir})
    message(FATAL_ERROR "no ${VEX_HEADER_ONLY_ROOT}/${dir}: run scripts/deps.sh")
  endif()
  file(REMOVE_RECURSE ${header_only_dir}/${dir})
  file(COPY ${VEX_HEADER_ONLY_ROOT}/${dir} DESTINATION ${header_only_dir})
endforeach()
foreach(target CLI11::CLI11 nlohmann_json::nlohmann_json fmt::fmt-header-only)
  string(REPLACE "::" "_" name ${target})
  add_library(${name} INTERFACE)
  target_include_directories(${name} SYSTEM INTERFACE ${header_only_dir})
  add_library(${target} ALIAS ${name})
endforeach()
target_compile_definitions(fmt_fmt-header-only INTERFACE FMT_HEADER_ONLY)
