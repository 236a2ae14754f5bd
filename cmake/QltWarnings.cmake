# Warnings as errors for the project's own code.
function(qlt_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unused-parameter)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(WIN32)
    # The system headers first, with the platform's forwarded calls renamed
    # out of the global scope (see platform/win_names.h).
    target_compile_options(${target} PRIVATE "SHELL:-include ${CMAKE_SOURCE_DIR}/platform/win_names.h")
  endif()
endfunction()

# qlt_include_root(<target>): gives <target> an include root of its own that
# holds only the folder of the calling CMakeLists (as a symbolic link at its
# path in the source tree), plus the public headers. The root is PUBLIC, so a
# target can include the headers of exactly the components it links:
# "fifo/ring_stream.h" compiles where the link graph has an arrow to the FIFO
# component and fails everywhere else.
function(qlt_include_root target)
  file(RELATIVE_PATH folder ${CMAKE_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  string(REPLACE "/" "_" name ${folder})
  set(root ${CMAKE_BINARY_DIR}/include-roots/${name})
  get_filename_component(parent ${root}/${folder} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR} ${root}/${folder} SYMBOLIC)
  get_target_property(type ${target} TYPE)
  set(scope PUBLIC)
  if(type STREQUAL "INTERFACE_LIBRARY")
    set(scope INTERFACE)
  endif()
  target_include_directories(${target} ${scope}
    $<BUILD_INTERFACE:${root}>
    $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/include>)
endfunction()

# A static, position-independent component linked whole into the SDK library.
# It sees its own folder, the public headers and what it links.
function(qlt_component target)
  add_library(${target} STATIC ${ARGN})
  qlt_include_root(${target})
  target_compile_definitions(${target} PRIVATE QLTFSDK_BUILD)
  qlt_warnings(${target})
endfunction()
