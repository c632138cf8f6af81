# SPDX-License-Identifier: Apache-2.0
# Helper programs of the compaction tests, placed where the end-to-end tests look for them: in
# tests/compact/ of the build tree. compact_child holds memory for kestrel to compact;
# compact_nosys runs kestrel as on a kernel without process_madvise.
foreach(helper compact_child compact_nosys)
  add_executable(${helper} ${CMAKE_CURRENT_SOURCE_DIR}/support/${helper}.cpp)
  target_include_directories(${helper} PRIVATE ${KESTREL_ROOT})
  set_target_properties(${helper} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/compact)
  add_dependencies(kestrel_e2e_tests ${helper})
endforeach()
