# SPDX-License-Identifier: Apache-2.0
# For presets whose programs are not for use elsewhere: that of ./run, and the sanitizers'. Most of a build's
# time goes into the headers of the libraries, so they are read once for all sources of a target. Names
# at file scope differ within such a target.
set_target_properties(dolm_ric_core dolm_ric_simulator tool_common tool_json teskctl_parts teskboard
                      tesk_exporter_parts dolm_ric_linux_kernel dolm_ric_linux_ports
                      PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
set_source_files_properties(${PROJECT_SOURCE_DIR}/src/tesk_exporter/collector.cpp TARGET_DIRECTORY tesk_exporter_parts
                            PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
target_precompile_headers(mbx_parts PRIVATE <algorithm> <atomic> <cerrno> <cstring> <map> <memory> <string> <vector>)
