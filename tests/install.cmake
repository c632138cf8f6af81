# SPDX-License-Identifier: Apache-2.0
# Installs the build into a fresh prefix and uses what was installed: the wrapper must find the
# installed simulator library and the installed kestrel (which must find libbase through its
# install run path), and man must render the installed manual page without a warning. The
# prefix lies where no build tree is within the wrapper's reach, so only the installed library
# can answer.
#
# Included by tests/CMakeLists.txt it registers itself as a test; the test runs it as
#   cmake -DKESTREL_BUILD_DIR=<build> -DKESTREL_PREFIX=<empty folder> -P tests/install.cmake

if(NOT CMAKE_SCRIPT_MODE_FILE)
  add_test(NAME install_gives_a_working_kestrel_and_manual_page
           COMMAND ${CMAKE_COMMAND} -DKESTREL_BUILD_DIR=${CMAKE_BINARY_DIR}
                   -DKESTREL_PREFIX=${CMAKE_CURRENT_BINARY_DIR}/install-prefix
                   -P ${CMAKE_CURRENT_LIST_FILE})
  set_tests_properties(install_gives_a_working_kestrel_and_manual_page PROPERTIES
                       SKIP_REGULAR_EXPRESSION "skipped: no man"
                       LABELS e2e)
  return()
endif()
cmake_minimum_required(VERSION 3.25)

# Runs a command and fails the test unless it exits with 0 and prints nothing on standard
# error; its standard output is left in run_out, and compared whole when an expected one is given.
function(expect_run what)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "STDOUT" "COMMAND")
  execute_process(COMMAND ${arg_COMMAND} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  list(JOIN arg_COMMAND " " command)
  if(NOT rc EQUAL 0 OR NOT err STREQUAL ""
     OR (DEFINED arg_STDOUT AND NOT out STREQUAL arg_STDOUT))
    message(FATAL_ERROR "${what}: ${command}\nstatus: ${rc}\nstdout:\n${out}\nstderr:\n${err}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
endfunction()

set(prefix ${KESTREL_PREFIX})
file(REMOVE_RECURSE ${prefix})
unset(ENV{DESTDIR})
unset(ENV{LD_PRELOAD})
expect_run("install failed" COMMAND ${CMAKE_COMMAND} --install ${KESTREL_BUILD_DIR} --prefix ${prefix})

foreach(f bin/kestrel bin/kestrel-sim lib/kestrel/libkestrel-sim.so share/man/man1/kestrel.1)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "the install lacks ${f}")
  endif()
endforeach()

expect_run("the installed kestrel does not run under the installed wrapper"
           STDOUT "kestrel version 1.0\n"
           COMMAND ${prefix}/bin/kestrel-sim -- kestrel version)

find_program(MAN man)
if(NOT MAN)
  message("skipped: no man program to render the manual page with")
  return()
endif()
set(ENV{LC_ALL} C)
set(ENV{MANWIDTH} 80)
expect_run("man cannot render the installed page"
           COMMAND ${MAN} --warnings=mac,escape,font -l ${prefix}/share/man/man1/kestrel.1)
if(NOT run_out MATCHES "NAME\n +kestrel - memory debugging tool")
  message(FATAL_ERROR "man rendered something else:\n${run_out}")
endif()
