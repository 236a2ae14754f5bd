# Dependencies of the Windows cross build. The header-only ones (spdlog with
# fmt, CLI11) come from the build machine's packages through a folder that
# holds only them, so no other host header reaches the cross compiler;
# GoogleTest is built from the sources Debian's googletest package ships;
# libcurl is the static mingw build under build/deps.
set(_qlt_host_headers ${CMAKE_BINARY_DIR}/host-headers)
foreach(dir spdlog fmt CLI)
  if(NOT EXISTS /usr/include/${dir})
    message(FATAL_ERROR "/usr/include/${dir} is missing: install the package that provides it (scripts/setup)")
  endif()
  file(MAKE_DIRECTORY ${_qlt_host_headers})
  file(CREATE_LINK /usr/include/${dir} ${_qlt_host_headers}/${dir} SYMBOLIC)
endforeach()

add_library(spdlog::spdlog INTERFACE IMPORTED)
set_target_properties(spdlog::spdlog PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${_qlt_host_headers}
  INTERFACE_COMPILE_DEFINITIONS "FMT_HEADER_ONLY;SPDLOG_HEADER_ONLY;SPDLOG_EOL=\"\\n\"")
# (Log lines end in "\n" on every system, as the library's own log files do.)
add_library(CLI11::CLI11 INTERFACE IMPORTED)
set_target_properties(CLI11::CLI11 PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${_qlt_host_headers})

if(QLT_BUILD_TESTS)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)  # defines GTest::gtest(_main)
endif()

if(EXISTS ${CMAKE_SOURCE_DIR}/cmake/MingwCurl.cmake)
  include(${CMAKE_SOURCE_DIR}/cmake/MingwCurl.cmake)
endif()
if(NOT TARGET CURL::libcurl)
  set(QLT_MINGW_CURL_PREFIX ${CMAKE_SOURCE_DIR}/build/deps/mingw-curl CACHE PATH "Static mingw libcurl")
  if(NOT EXISTS ${QLT_MINGW_CURL_PREFIX}/lib/libcurl.a)
    message(FATAL_ERROR "No static mingw libcurl in ${QLT_MINGW_CURL_PREFIX}: run scripts/setup")
  endif()
  add_library(CURL::libcurl STATIC IMPORTED)
  set_target_properties(CURL::libcurl PROPERTIES
    IMPORTED_LOCATION ${QLT_MINGW_CURL_PREFIX}/lib/libcurl.a
    INTERFACE_INCLUDE_DIRECTORIES ${QLT_MINGW_CURL_PREFIX}/include
    INTERFACE_COMPILE_DEFINITIONS CURL_STATICLIB
    INTERFACE_LINK_LIBRARIES "ws2_32;crypt32;secur32;bcrypt;advapi32;wldap32;normaliz")
endif()
