# GoogleTest and pugixml for the Windows cross build, compiled from Debian's sources with their
# own flags (the project's warning flags are added after this file).
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
