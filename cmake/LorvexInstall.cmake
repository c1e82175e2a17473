# Installation: library, headers, CMake package (find_package(Lorvex)) and pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS lorvex EXPORT LorvexTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lorvex
    FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/LxVersion.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lorvex)
install(EXPORT LorvexTargets NAMESPACE Lorvex:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Lorvex)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/LorvexConfig.cmake.in
    ${PROJECT_BINARY_DIR}/LorvexConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Lorvex)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/LorvexConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/LorvexConfig.cmake ${PROJECT_BINARY_DIR}/LorvexConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Lorvex)

set(LORVEX_PC_CFLAGS "")
if(LORVEX_KEEP_LOG)
    set(LORVEX_PC_CFLAGS "-DLORVEX_KEEP_LOG=1")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/lorvex.pc.in ${PROJECT_BINARY_DIR}/lorvex.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/lorvex.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
