# SPDX-License-Identifier: Apache-2.0
# Most of a build's time goes into the headers of the libraries, so they are read once for all sources of a target.
# Names at file scope differ within such a target. The preset debug compiles each source by itself;
# scripts/lint does the same with clang++, and finds a missing include.
set_target_properties(dolm_ric_core dolm_ric_simulator dolm_ric_linux dolm_ric_linux_ports dolm_ric_port_map
                      linux_interfaces mbx_parts program_common program_json tesk_causes tesk_client_objects
                      tesk_exporter_parts tesk_forecast tesk_history tesk_module_reader_parts teskboard teskctl_parts
                      PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
# A test links some of the server's modules with its own of the others.
if(NOT TESK_BUILD_TESTS)
  set_target_properties(tesk_server_modules PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
endif()
