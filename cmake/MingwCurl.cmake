# The Windows build's network client: the static libcurl (Schannel TLS) that
# scripts/build-mingw-curl cross-builds from Debian's curl source package.
#
# Defines CURL::libcurl as an imported static library with CURL_STATICLIB and
# the Windows system libraries it needs, and fills FindCURL's cache entries so
# that a later find_package(CURL) finds this library and keeps this target
# instead of looking for one on the build machine.
include_guard(GLOBAL)

# The default is the repository's build/deps, found from this file's place so
# that any project including it (the smoke check too) gets the same path.
cmake_path(GET CMAKE_CURRENT_LIST_DIR PARENT_PATH _qlt_repo)
set(QLT_MINGW_CURL_PREFIX "${_qlt_repo}/build/deps/mingw-curl"
    CACHE PATH "Install prefix of the static mingw-w64 libcurl")

set(_qlt_curl_lib "${QLT_MINGW_CURL_PREFIX}/lib/libcurl.a")
set(_qlt_curl_inc "${QLT_MINGW_CURL_PREFIX}/include")
if(NOT EXISTS "${_qlt_curl_lib}" OR NOT EXISTS "${_qlt_curl_inc}/curl/curl.h")
  message(FATAL_ERROR
    "No static mingw-w64 libcurl at ${QLT_MINGW_CURL_PREFIX} "
    "(expected lib/libcurl.a and include/curl/curl.h). "
    "Build it with scripts/build-mingw-curl (scripts/setup runs it), "
    "or point QLT_MINGW_CURL_PREFIX at an existing build.")
endif()

if(NOT TARGET CURL::libcurl)
  add_library(CURL::libcurl STATIC IMPORTED GLOBAL)
  # The libraries are those libcurl.pc lists for this configuration: Winsock,
  # the certificate store and legacy crypto (Schannel's certificate checks),
  # and bcrypt for random numbers. Schannel itself is reached at run time
  # through the security DLL libcurl loads, so it needs no import library.
  set_target_properties(CURL::libcurl PROPERTIES
    IMPORTED_LOCATION "${_qlt_curl_lib}"
    INTERFACE_INCLUDE_DIRECTORIES "${_qlt_curl_inc}"
    INTERFACE_COMPILE_DEFINITIONS CURL_STATICLIB
    INTERFACE_LINK_LIBRARIES "bcrypt;advapi32;crypt32;ws2_32")
endif()

# What find_package(CURL) would otherwise search for on the build machine.
set(CURL_NO_CURL_CMAKE ON CACHE BOOL "" FORCE)
set(CURL_INCLUDE_DIR "${_qlt_curl_inc}" CACHE PATH "" FORCE)
set(CURL_LIBRARY "${_qlt_curl_lib}" CACHE FILEPATH "" FORCE)

unset(_qlt_repo)
unset(_qlt_curl_lib)
unset(_qlt_curl_inc)
