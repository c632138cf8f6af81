# SPDX-License-Identifier: Apache-2.0
# Real kernels in qemu: the guest programs (tests/vm/helpers/*.c and the guest benchmarks'
# bench/vm/*.c, built into vm-helpers/) and one test per kernel flavour that boots them
# (tests/vm/run-vm). Sanitizer builds boot none: their binaries would need the sanitizer runtimes.
if(KESTREL_SANITIZE)
  return()
endif()

file(GLOB KESTREL_VM_HELPERS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/vm/helpers/*.c
     ${KESTREL_ROOT}/bench/vm/*.c)
foreach(helper_src ${KESTREL_VM_HELPERS})
  get_filename_component(helper ${helper_src} NAME_WE)
  add_executable(vm_helper_${helper} ${helper_src})
  set_target_properties(vm_helper_${helper} PROPERTIES OUTPUT_NAME ${helper}
                        RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/vm-helpers)
  target_include_directories(vm_helper_${helper} PRIVATE ${KESTREL_ROOT})
  target_link_libraries(vm_helper_${helper} PRIVATE Threads::Threads)
endforeach()

if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
  set(KESTREL_VM_FLAVOURS arm64 arm64-16k)
elseif(NOT CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  set(KESTREL_VM_FLAVOURS amd64)
endif()
foreach(flavour ${KESTREL_VM_FLAVOURS})
  add_test(NAME vm.${flavour}
           COMMAND ${KESTREL_ROOT}/tests/vm/run-vm --flavour ${flavour} --build ${CMAKE_BINARY_DIR})
  set_tests_properties(vm.${flavour} PROPERTIES LABELS vm SKIP_RETURN_CODE 77 TIMEOUT 400
                       RUN_SERIAL TRUE)
endforeach()
