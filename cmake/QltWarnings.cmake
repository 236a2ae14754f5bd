# Warnings as errors for the project's own code.
function(qlt_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror -Wno-unused-parameter)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()

# A static, position-independent component linked whole into the SDK library.
function(qlt_component target)
  add_library(${target} STATIC ${ARGN})
  target_include_directories(${target} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/include)
  target_compile_definitions(${target} PRIVATE QLTFSDK_BUILD)
  qlt_warnings(${target})
endfunction()
