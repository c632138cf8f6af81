# Finds the Debian packages the build needs: Android's libbase (in the "android" subfolder of the
# multiarch library folder, whose run path is embedded), tinyxml2 and threads.
find_package(Threads REQUIRED)

if(ANDROID)
  # The NDK has no libbase; a device build points KESTREL_ANDROID_BASE_DIR at one built for it.
  set(KESTREL_ANDROID_BASE_DIR "" CACHE PATH "Folder with include/ and lib/ of libbase for the device")
  add_library(kestrel::base UNKNOWN IMPORTED)
  set_target_properties(kestrel::base PROPERTIES
    IMPORTED_LOCATION ${KESTREL_ANDROID_BASE_DIR}/lib/libbase.a
    INTERFACE_INCLUDE_DIRECTORIES ${KESTREL_ANDROID_BASE_DIR}/include)
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
endif()

find_library(KESTREL_TINYXML2 NAMES tinyxml2 REQUIRED)
find_path(KESTREL_TINYXML2_INCLUDE tinyxml2.h REQUIRED)
add_library(kestrel::tinyxml2 UNKNOWN IMPORTED)
set_target_properties(kestrel::tinyxml2 PROPERTIES
  IMPORTED_LOCATION ${KESTREL_TINYXML2}
  INTERFACE_INCLUDE_DIRECTORIES ${KESTREL_TINYXML2_INCLUDE})
