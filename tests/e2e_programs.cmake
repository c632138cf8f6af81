# SPDX-License-Identifier: Apache-2.0
# The programs the end-to-end tests run besides kestrel.

# The compaction tests look in tests/compact/ of the build tree for compact_nosys, which runs
# kestrel as on a kernel without process_madvise.
add_executable(compact_nosys ${CMAKE_CURRENT_SOURCE_DIR}/support/compact_nosys.cpp)
target_include_directories(compact_nosys PRIVATE ${KESTREL_ROOT})
set_target_properties(compact_nosys PROPERTIES
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/compact)

# The stand-in target of the malloc-debug tests.
add_executable(kestrel_sigtarget ${CMAKE_CURRENT_SOURCE_DIR}/support/sigtarget.cpp)

# The allocator hook: the unit tests take its recorder and record texts; the end-to-end tests
# preload the hook into the VM test's target program, built for the host with its functions in
# the dynamic symbol table so that dumps name them. Like the hook, the target carries no
# sanitizer runtime: the hook stands in front of glibc's malloc.
target_link_libraries(kestrel_unit_tests PRIVATE kestrel_hook_core)
add_executable(kestrel_hook_target ${CMAKE_CURRENT_SOURCE_DIR}/vm/helpers/hook_target.c)
set_target_properties(kestrel_hook_target PROPERTIES ENABLE_EXPORTS ON OUTPUT_NAME hook_target)
target_link_libraries(kestrel_hook_target PRIVATE Threads::Threads)
if(KESTREL_SANITIZE)
  target_compile_options(kestrel_hook_target PRIVATE -fno-sanitize=all)
  target_link_options(kestrel_hook_target PRIVATE -fno-sanitize=all)
endif()

add_dependencies(kestrel_e2e_tests compact_nosys kestrel_sigtarget kestrel_hook_target
                 kestrel-malloc-hook)
target_compile_definitions(kestrel_e2e_tests PRIVATE
  KESTREL_SIGTARGET="$<TARGET_FILE:kestrel_sigtarget>"
  KESTREL_HOOK_TARGET="$<TARGET_FILE:kestrel_hook_target>"
  KESTREL_HOOK_LIBRARY="$<TARGET_FILE:kestrel-malloc-hook>")
