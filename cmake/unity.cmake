# SPDX-License-Identifier: Apache-2.0
# For presets whose programs are not for use elsewhere: that of ./run, and the sanitizers'. Most of a build's
# time goes into the headers of the libraries, so they are read once for all sources of a target. Names
# at file scope differ within such a target.
set_target_properties(dolm_ric_core dolm_ric_simulator program_common program_json teskctl_parts teskboard
                      linux_interfaces mbx_parts dolm_ric_linux_ports dolm_ric_port_map tesk_causes tesk_client_objects
                      PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
# A test links some of the server's modules with its own of the others.
if(NOT TESK_BUILD_TESTS)
  set_target_properties(tesk_server_modules PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
endif()
