# Install rules so that a game can use find_package(dm) after cmake --install. The host tools
# install themselves (see add_dm_program).
include(CMakePackageConfigHelpers)

install(TARGETS zul dm EXPORT dmTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY zul/include/ DESTINATION ${DM_INSTALL_ZUL_INCLUDEDIR})
install(DIRECTORY dm/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The wire and file formats, for tools written in other languages.
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(EXPORT dmTargets NAMESPACE dm:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/dm)

configure_package_config_file(cmake/dmConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/dmConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/dm)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/dmConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/dmConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/dmConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/dm)
