# SPDX-License-Identifier: Apache-2.0
# Finds what the build links with. On a Linux host these are Debian packages: Android's libbase
# (in the "android" subfolder of the multiarch library folder, whose run path is embedded),
# tinyxml2 and threads. A device build (the NDK's toolchain file sets ANDROID) takes liblog from
# the NDK and libbase and tinyxml2 from a folder of device builds.
find_package(Threads REQUIRED)

if(ANDROID)
  # The NDK brings liblog but neither libbase nor tinyxml2. A device build points
  # KESTREL_ANDROID_DEPS_DIR at a folder holding arm64 builds of both, made with the same NDK:
  # headers in include/ (android-base/, tinyxml2.h), libraries in lib/ (static ones preferred,
  # so that only kestrel itself has to be pushed to the device).
  set(KESTREL_ANDROID_DEPS_DIR "" CACHE PATH
      "Folder with include/ and lib/ of libbase and tinyxml2 built for the device")
  if(NOT IS_DIRECTORY "${KESTREL_ANDROID_DEPS_DIR}/include")
    message(FATAL_ERROR "a device build needs -DKESTREL_ANDROID_DEPS_DIR=<folder with include/ "
                        "and lib/ of libbase and tinyxml2 built for ${ANDROID_ABI}>")
  endif()
  set(deps_lib PATHS ${KESTREL_ANDROID_DEPS_DIR}/lib NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  set(deps_include PATHS ${KESTREL_ANDROID_DEPS_DIR}/include NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH
      REQUIRED)
  find_library(KESTREL_LIBBASE NAMES libbase.a base ${deps_lib})
  find_path(KESTREL_LIBBASE_INCLUDE android-base/file.h ${deps_include})
  find_library(KESTREL_TINYXML2 NAMES libtinyxml2.a tinyxml2 ${deps_lib})
  find_path(KESTREL_TINYXML2_INCLUDE tinyxml2.h ${deps_include})
  find_library(KESTREL_LIBLOG log REQUIRED)
  add_library(kestrel::base UNKNOWN IMPORTED)
  set_target_properties(kestrel::base PROPERTIES
    IMPORTED_LOCATION ${KESTREL_LIBBASE}
    INTERFACE_INCLUDE_DIRECTORIES ${KESTREL_LIBBASE_INCLUDE}
    INTERFACE_LINK_LIBRARIES ${KESTREL_LIBLOG})
else()
  if(NOT CMAKE_LIBRARY_ARCHITECTURE)
    message(FATAL_ERROR "no multiarch library folder known for this toolchain")
  endif()
  set(KESTREL_ANDROID_LIBDIR /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
  find_library(KESTREL_LIBBASE NAMES base PATHS ${KESTREL_ANDROID_LIBDIR} NO_DEFAULT_PATH
               NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  find_path(KESTREL_LIBBASE_INCLUDE android-base/file.h PATHS /usr/include/android
            NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  add_library(kestrel::base UNKNOWN IMPORTED)
  set_target_properties(kestrel::base PROPERTIES
    IMPORTED_LOCATION ${KESTREL_LIBBASE}
    INTERFACE_INCLUDE_DIRECTORIES ${KESTREL_LIBBASE_INCLUDE})
  list(APPEND CMAKE_BUILD_RPATH ${KESTREL_ANDROID_LIBDIR})
  list(APPEND CMAKE_INSTALL_RPATH ${KESTREL_ANDROID_LIBDIR})

  find_library(KESTREL_TINYXML2 NAMES tinyxml2 REQUIRED)
  find_path(KESTREL_TINYXML2_INCLUDE tinyxml2.h REQUIRED)
endif()

add_library(kestrel::tinyxml2 UNKNOWN IMPORTED)
set_target_properties(kestrel::tinyxml2 PROPERTIES
  IMPORTED_LOCATION ${KESTREL_TINYXML2}
  INTERFACE_INCLUDE_DIRECTORIES ${KESTREL_TINYXML2_INCLUDE})
