# What is installed, in the components library, development and simulator, and the Debian packages
# made of them: libconfsvc1, libconfsvc-dev and confsim.
install(TARGETS confsvc confsvc_cpp EXPORT confsvc
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
                NAMELINK_COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

# The files for CMake and for pkg-config find their prefix from where they stand, so an installed
# tree can be moved.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/confsvc)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/confsvc-config.cmake.in
                              confsvc-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(confsvc-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/confsvc-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/confsvc-config-version.cmake
        DESTINATION ${package_dir} COMPONENT development)
install(EXPORT confsvc NAMESPACE confsvc:: FILE confsvc-targets.cmake
        DESTINATION ${package_dir} COMPONENT development)

string(REGEX REPLACE "[^/]+" ".." CONFSVC_PC_TO_PREFIX ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
configure_file(${PROJECT_SOURCE_DIR}/src/lib/libconfsvc.pc.in libconfsvc.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libconfsvc.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
              ${PROJECT_SOURCE_DIR}/docs/guide.md ${PROJECT_SOURCE_DIR}/LICENSE
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libconfsvc-dev COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libconfsvc1 COMPONENT library)

if(TARGET confsim)
    set_target_properties(confsim PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS confsim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT simulator)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/confsim.md ${PROJECT_SOURCE_DIR}/docs/json.md
                  ${PROJECT_SOURCE_DIR}/LICENSE
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/confsim COMPONENT simulator)
endif()

# The tool that finds out the packages that ours depend on.
find_program(DPKG_SHLIBDEPS dpkg-shlibdeps)
if(DPKG_SHLIBDEPS)
    set(CPACK_GENERATOR DEB)
    set(CPACK_PACKAGE_CONTACT "The confsvc authors <confsvc@localhost>")
    set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
    set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
    set(CPACK_DEB_COMPONENT_INSTALL ON)
    set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src/lib)
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libconfsvc1)
    set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libconfsvc-dev)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
        "libconfsvc1 (= ${PROJECT_VERSION}), libxml2-dev")
    set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME confsim)
    set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SECTION devel)
    set(CPACK_DEBIAN_SIMULATOR_PACKAGE_DEPENDS "libconfsvc1 (= ${PROJECT_VERSION})")
    include(CPack)
endif()
