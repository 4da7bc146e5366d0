# The C++ library as a package: what `cmake --install` puts where `find_package(decision_bounds)` finds it.

include(CMakePackageConfigHelpers)

set(package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/decision_bounds")
install(
    TARGETS decision_bounds_core
    EXPORT decision_bounds_targets
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT decision_bounds_core)
install(
    DIRECTORY engines/decision_bounds "${PROJECT_BINARY_DIR}/include/decision_bounds"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
    COMPONENT decision_bounds_core
    FILES_MATCHING PATTERN "*.hpp")
install(
    EXPORT decision_bounds_targets
    NAMESPACE decision_bounds::
    DESTINATION "${package_folder}"
    COMPONENT decision_bounds_core)

configure_package_config_file(cmake/decision_bounds-config.cmake.in decision_bounds-config.cmake
                              INSTALL_DESTINATION "${package_folder}")
write_basic_package_version_file(decision_bounds-config-version.cmake COMPATIBILITY SameMinorVersion)
install(
    FILES "${PROJECT_BINARY_DIR}/decision_bounds-config.cmake"
          "${PROJECT_BINARY_DIR}/decision_bounds-config-version.cmake"
    DESTINATION "${package_folder}"
    COMPONENT decision_bounds_core)
