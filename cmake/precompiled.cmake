# SPDX-License-Identifier: Apache-2.0
# A quarter to a half of most compilations is the reading of headers of libraries: each group of targets, which
# have the same flags and no macro that their owner lacks, reads them once. The headers of nlohmann and CLI11
# are left out, as g++ would compile their inline functions anew for each source, for up to seconds. Also, g++ warns
# of accesses to strings that are none. A compilers' cache excludes all this: g++ died of a precompiled header
# that came from one. Builds with a cache therefore show missing includes, and have all warnings.
function(tesk_precompile headers owner)
  target_precompile_headers(${owner} PRIVATE ${headers})
  foreach(target ${ARGN})
    target_precompile_headers(${target} REUSE_FROM ${owner})
  endforeach()
  foreach(target ${owner} ${ARGN})
    target_compile_options(${target} PRIVATE
                           $<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds;-Wno-stringop-overflow>)
  endforeach()
endfunction()

set(std <algorithm> <array> <cerrno> <charconv> <chrono> <cmath> <cstdint> <cstring> <functional> <map> <memory>
        <mutex> <optional> <set> <span> <string> <string_view> <utility> <vector>)
tesk_precompile("${std};<atomic>" mbx_parts mbx)
tesk_precompile("${std}" dolm_ric_port_map dolm_ric_core dolm_ric_simulator dolm_ric_vocabulary dolm_ric_linux
                dolm_ric_linux_decode dolm_ric_linux_ports linux_interfaces tesk_causes tesk_client_objects)
tesk_precompile("${std};<fmt/format.h>" tesk_history tesk_exporter_parts)
if(TESK_BUILD_TESTS)
  get_property(tests DIRECTORY tests PROPERTY BUILDSYSTEM_TARGETS)
  list(FILTER tests INCLUDE REGEX "_test$")
  tesk_precompile("${std};<csignal>;<filesystem>;<fstream>;<gtest/gtest.h>;<sstream>;<thread>" test_headers ${tests})
endif()
