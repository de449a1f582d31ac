# The daemon's sources and what a host supplies of the Android platform: the one list the daemon,
# the checker, the tests, the benchmark and the fuzzers are built from (Android.bp has its own
# filegroup). Paths are absolute, so that a build of another folder (fuzz/) can include it.
set(STALL_WARD_SOURCES ${CMAKE_CURRENT_LIST_DIR}/../src/stall_ward.cpp
                       ${CMAKE_CURRENT_LIST_DIR}/../src/utils.cpp)
set(STALL_WARD_HOST_SOURCES ${CMAKE_CURRENT_LIST_DIR}/../host/android_reboot.cpp
                            ${CMAKE_CURRENT_LIST_DIR}/../host/log_stderr.cpp
                            ${CMAKE_CURRENT_LIST_DIR}/../host/properties.cpp
                            ${CMAKE_CURRENT_LIST_DIR}/../tools/check/prop_text.cpp)
# The host property store reads its file with the checker's reader of init's rules.
set(STALL_WARD_HOST_INCLUDES ${CMAKE_CURRENT_LIST_DIR}/../host ${CMAKE_CURRENT_LIST_DIR}/../tools)
# The report tool's readers of evidence, its story and the chain across processes (the fuzzers
# take these), then what prints them.
set(STALL_WARD_REPORT_READERS)
foreach(name input kernel java native binder processes chain story daemon_log)
  list(APPEND STALL_WARD_REPORT_READERS ${CMAKE_CURRENT_LIST_DIR}/../tools/report/${name}.cpp)
endforeach()
set(STALL_WARD_REPORT_SOURCES ${STALL_WARD_REPORT_READERS})
foreach(name output fleet chain_output)
  list(APPEND STALL_WARD_REPORT_SOURCES ${CMAKE_CURRENT_LIST_DIR}/../tools/report/${name}.cpp)
endforeach()
