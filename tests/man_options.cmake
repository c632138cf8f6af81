# SPDX-License-Identifier: Apache-2.0
# Keeps docs/kestrel.1 and the option tables in cmds/ from drifting apart. Every short and long
# name of a command's option table must appear in that command's section of the manual page
# (".SS \"kestrel <command> ...\"", up to the next section) as \-x or \-\-long\-name, and every
# option that section shows must still be in the table. Files of cmds/ that are not a command
# (cmd_<word>.cpp) only need their options somewhere in the page.
#
# Included by tests/CMakeLists.txt it registers itself as a test; the test runs it as
#   cmake -DKESTREL_SOURCE_DIR=<top of the tree> -P tests/man_options.cmake

if(NOT CMAKE_SCRIPT_MODE_FILE)
  add_test(NAME man_page_lists_every_option
           COMMAND ${CMAKE_COMMAND} -DKESTREL_SOURCE_DIR=${KESTREL_ROOT}
                   -P ${CMAKE_CURRENT_LIST_FILE})
  return()
endif()
cmake_minimum_required(VERSION 3.25)

set(page_path ${KESTREL_SOURCE_DIR}/docs/kestrel.1)
file(READ ${page_path} page)

# roff writes a minus as "\-"; a bare "-" is a hyphen and does not count. Work on a copy where
# every "\-" is one marker character, so that "\-\-pid" is "MMpid" and cannot be read as "\-p".
string(ASCII 1 M)
string(REPLACE "\\-" "${M}" page "${page}")
string(REPLACE "\n" " " page " ${page} ")

# The options a piece of the page shows, as "-x" and "--long-name": the words that are a minus
# and one letter, or two minuses and a name, once font changes are taken out.
function(options_shown text out)
  string(REGEX REPLACE "\\\\f(\\(..|\\[[^]]*\\]|.)" " " text "${text}")
  string(REGEX REPLACE "[^A-Za-z0-9_${M}]+" ";" words "${text}")
  set(shown "")
  foreach(w ${words})
    if(w MATCHES "^${M}[A-Za-z]$" OR w MATCHES "^${M}${M}[A-Za-z0-9_]+(${M}[A-Za-z0-9_]+)*$")
      string(REPLACE "${M}" "-" w "${w}")
      list(APPEND shown "${w}")
    endif()
  endforeach()
  list(REMOVE_DUPLICATES shown)
  set(${out} "${shown}" PARENT_SCOPE)
endfunction()

# The text of the ".SS" section of one command, or empty when the page has none.
function(command_section word out)
  string(REPLACE "-" "${M}" roff_word "${word}")
  string(FIND "${page}" ".SS \"kestrel ${roff_word} " start)
  if(start EQUAL -1)
    string(FIND "${page}" ".SS \"kestrel ${roff_word}\"" start)
  endif()
  if(start EQUAL -1)
    set(${out} "" PARENT_SCOPE)
    return()
  endif()
  string(SUBSTRING "${page}" ${start} -1 rest)
  string(LENGTH ".SS" skip)
  string(SUBSTRING "${rest}" ${skip} -1 tail)
  string(REGEX MATCH "\\.S[SH] " next "${tail}")
  if(next)
    string(FIND "${tail}" "${next}" end)
    string(SUBSTRING "${rest}" 0 ${end} rest)
  endif()
  set(${out} " ${rest} " PARENT_SCOPE)
endfunction()

file(GLOB sources ${KESTREL_SOURCE_DIR}/cmds/*.cpp)
set(problems "")
set(total 0)
foreach(source ${sources})
  file(READ ${source} code)
  get_filename_component(name ${source} NAME)
  set(table "")
  string(REGEX MATCHALL "\\.short_name *= *'[^']'" shorts "${code}")
  foreach(s ${shorts})
    string(REGEX REPLACE ".*'(.)'" "-\\1" s "${s}")
    list(APPEND table "${s}")
  endforeach()
  string(REGEX MATCHALL "\\.long_name *= *\"[^\"]+\"" longs "${code}")
  foreach(l ${longs})
    string(REGEX REPLACE ".*\"([^\"]+)\"" "--\\1" l "${l}")
    list(APPEND table "${l}")
  endforeach()
  list(REMOVE_DUPLICATES table)
  if(NOT table)
    continue()
  endif()
  list(LENGTH table n)
  math(EXPR total "${total} + ${n}")

  if(name MATCHES "^cmd_(.+)\\.cpp$")
    string(REPLACE "_" "-" word "${CMAKE_MATCH_1}")
    command_section(${word} section)
    if(NOT section)
      list(APPEND problems "${name}: no section \"kestrel ${word}\" in the manual page")
      continue()
    endif()
    set(where "section \"kestrel ${word}\"")
  else()
    set(section "${page}")
    set(where "the manual page")
  endif()

  options_shown("${section}" shown)
  foreach(opt ${table})
    if(NOT opt IN_LIST shown)
      list(APPEND problems "${name}: ${opt} is missing from ${where}")
    endif()
  endforeach()
  if(name MATCHES "^cmd_")
    foreach(opt ${shown})
      if(NOT opt IN_LIST table AND NOT opt MATCHES "^-(h|-help)$")
        list(APPEND problems "${name}: ${where} shows ${opt}, which the option table lacks")
      endif()
    endforeach()
  endif()
endforeach()

if(total EQUAL 0)
  list(APPEND problems "no option found in any table of cmds/*.cpp; has the table format changed?")
endif()
if(problems)
  list(JOIN problems "\n  " text)
  message(FATAL_ERROR "docs/kestrel.1 and the option tables disagree:\n  ${text}")
endif()
message(STATUS "docs/kestrel.1 lists all ${total} options of the option tables")
