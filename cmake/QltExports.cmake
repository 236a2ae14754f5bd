# qlt_exports(target): the shared library exports only the names the symbol
# rule allows (see cmake/exported_names.txt). Everything else, including the
# standard-library and spdlog template code the compiler marks visible, stays
# local to the library.
set(QLT_EXPORT_PREFIXES QLCT_ QLT_ Qlt Kx qlt)
file(STRINGS ${CMAKE_SOURCE_DIR}/cmake/exported_names.txt _qlt_names REGEX "^[^#]")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/cmake/exported_names.txt)

set(_c "")
set(_cxx "")
foreach(p IN LISTS QLT_EXPORT_PREFIXES)
  string(APPEND _c "    ${p}*;\n")
  string(APPEND _cxx "      ${p}*;\n")
  foreach(kind typeinfo?for typeinfo?name?for vtable?for VTT?for virtual?thunk?to non-virtual?thunk?to)
    string(APPEND _cxx "      ${kind}?${p}*;\n")
  endforeach()
endforeach()
foreach(n IN LISTS _qlt_names)
  string(STRIP "${n}" n)
  if(n STREQUAL "")
    continue()
  endif()
  if(n MATCHES "\\(")
    string(APPEND _cxx "      \"${n}\";\n")
  else()
    string(APPEND _c "    ${n};\n")
    string(APPEND _cxx "      ${n}::*;\n      \"typeinfo for ${n}\";\n      \"typeinfo name for ${n}\";\n")
    string(APPEND _cxx "      \"vtable for ${n}\";\n")
  endif()
endforeach()
set(QLT_EXPORTS_MAP ${CMAKE_BINARY_DIR}/qlt_exports.map)
file(CONFIGURE OUTPUT ${QLT_EXPORTS_MAP} CONTENT "{\n  global:\n${_c}    extern \"C++\" {\n${_cxx}    };\n  local: *;\n};\n")

function(qlt_exports target)
  if(WIN32)
    # Each library carries its own operator new (the runtime is linked
    # statically): every one but the platform library gets the one that
    # consults the fault control's per-thread allocation failure.
    if(NOT target STREQUAL "qltplatform")
      target_sources(${target} PRIVATE ${CMAKE_SOURCE_DIR}/platform/alloc_hook.cc)
    endif()
    # A PE library exports exactly what is marked __declspec(dllexport);
    # with any such mark present the linker exports nothing else.
    return()
  endif()
  target_link_options(${target} PRIVATE "LINKER:--version-script=${QLT_EXPORTS_MAP}")
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${QLT_EXPORTS_MAP})
endfunction()
