# SPDX-License-Identifier: Apache-2.0
# On arm64, every program and shared library the project ships passes kestrel's own 16 KiB ELF
# alignment check (run under the emulator on the built files). The tests are added once the
# whole tree is configured, so targets of folders added after tests/ are covered as well.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  function(kestrel_add_elf_align_tests dir)
    get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
      get_target_property(type ${target} TYPE)
      if(type MATCHES "^(EXECUTABLE|SHARED_LIBRARY|MODULE_LIBRARY)$")
        add_test(NAME elf_align_16k.${target}
                 COMMAND kestrel utils --elf-align $<TARGET_FILE:${target}>)
        set_tests_properties(elf_align_16k.${target} PROPERTIES LABELS e2e)
      endif()
    endforeach()
    get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
    # Test programs, benchmarks and fuzzers are not shipped.
    list(FILTER subdirs EXCLUDE REGEX "/(tests|bench|fuzz)$")
    foreach(subdir ${subdirs})
      kestrel_add_elf_align_tests(${subdir})
    endforeach()
  endfunction()
  cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR}
                 CALL kestrel_add_elf_align_tests ${CMAKE_SOURCE_DIR})
endif()
