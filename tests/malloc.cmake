# SPDX-License-Identifier: Apache-2.0
# The stand-in target of the malloc-debug tests.
add_executable(kestrel_sigtarget ${CMAKE_CURRENT_SOURCE_DIR}/support/sigtarget.cpp)
add_dependencies(kestrel_e2e_tests kestrel_sigtarget)
target_compile_definitions(kestrel_e2e_tests PRIVATE
  KESTREL_SIGTARGET="$<TARGET_FILE:kestrel_sigtarget>")
