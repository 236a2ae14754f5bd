# Compiles each public header alone, as a host would include it, with
# -std=c++17 -Wpedantic -Werror -fsyntax-only and no define of the library's
# own build. Fails on the first header that does not compile cleanly.
# -DCXX=<compiler> -DINCLUDE_DIR=<the include folder>
file(GLOB headers "${INCLUDE_DIR}/qltfsdk/*.h")
if(NOT headers)
  message(FATAL_ERROR "no public headers under ${INCLUDE_DIR}/qltfsdk")
endif()
set(failed "")
foreach(h IN LISTS headers)
  execute_process(COMMAND ${CXX} -x c++ -std=c++17 -Wpedantic -Werror -fsyntax-only -I${INCLUDE_DIR} ${h}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message("${h}:\n${out}")
    list(APPEND failed ${h})
  endif()
endforeach()
list(LENGTH headers n)
if(failed)
  message(FATAL_ERROR "headers that do not compile alone under -Wpedantic: ${failed}")
endif()
message("${n} public headers compile alone under -Wpedantic")
