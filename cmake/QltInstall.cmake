# Installation: headers, libraries, the CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/qltfsdk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS qltfsdk qltplatform qltUtilBase QltLogBookU EXPORT qltfsdkTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Loaded by name beside libqltfsdk, so installed beside it but not exported.
install(TARGETS QVFVirtualFileU QLT_WebFileReader LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS qltfs RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT qltfsdkTargets NAMESPACE qltfsdk:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qltfsdk)
configure_package_config_file(cmake/qltfsdkConfig.cmake.in ${CMAKE_BINARY_DIR}/qltfsdkConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qltfsdk)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/qltfsdkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/qltfsdkConfig.cmake ${CMAKE_BINARY_DIR}/qltfsdkConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qltfsdk)
configure_file(cmake/qltfsdk.pc.in ${CMAKE_BINARY_DIR}/qltfsdk.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qltfsdk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
