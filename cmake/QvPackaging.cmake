# Install rules, the CMake package and the pkg-config file, so that an application links the
# library with `find_package(common_utilities)` or `pkg-config --libs common_utilities`.

include(CMakePackageConfigHelpers)

install(TARGETS common_utilities moorglass boardprofile platform_headers
    EXPORT common_utilitiesTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/common_utilities
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")

install(EXPORT common_utilitiesTargets
    NAMESPACE quorvel::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/common_utilities)

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/common_utilitiesConfig.cmake.in
    ${PROJECT_BINARY_DIR}/common_utilitiesConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/common_utilities)
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/common_utilitiesConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/common_utilitiesConfig.cmake
    ${PROJECT_BINARY_DIR}/common_utilitiesConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/common_utilities)

configure_file(${PROJECT_SOURCE_DIR}/cmake/common_utilities.pc.in
    ${PROJECT_BINARY_DIR}/common_utilities.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/common_utilities.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# ---- A prefix that runs wherever it is installed --------------------------------------------
# The installed files find each other relative to themselves, with no LD_LIBRARY_PATH: a library
# finds the platform libraries beside it, a program the libraries in the library directory. An
# application's own search path would not do: it reaches only the libraries the application
# itself names, not what those need in turn.
file(RELATIVE_PATH _qv_bin_to_lib
    ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})
set_target_properties(common_utilities moorglass boardprofile PROPERTIES INSTALL_RPATH "$ORIGIN")
if(TARGET qvtool)
    set_target_properties(qvtool PROPERTIES INSTALL_RPATH "$ORIGIN/${_qv_bin_to_lib}")
endif()
