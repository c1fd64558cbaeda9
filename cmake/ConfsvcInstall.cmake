# What is installed, in the components library, development, simulator and documentation. A device
# needs the first only.
install(TARGETS confsvc confsvc_cpp EXPORT confsvc
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
                NAMELINK_COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT development FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

# The files for CMake and for pkg-config find their prefix from where they stand, so an installed
# tree can be moved. What belongs to the system says so: pkg-config then leaves out directories that
# compilers search anyway, and puts a sysroot in front of the others.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/confsvc)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/confsvc-config.cmake.in
                              confsvc-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(confsvc-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/confsvc-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/confsvc-config-version.cmake
              ${PROJECT_SOURCE_DIR}/kits/cmake/confsvc-test.cmake
        DESTINATION ${package_dir} COMPONENT development)
install(EXPORT confsvc NAMESPACE confsvc:: FILE confsvc-targets.cmake
        DESTINATION ${package_dir} COMPONENT development)

if(CMAKE_INSTALL_PREFIX STREQUAL /usr)
    set(CONFSVC_PC_PREFIX /usr)
else()
    string(REGEX REPLACE "[^/]+" ".." up ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    set(CONFSVC_PC_PREFIX \${pcfiledir}/${up})
endif()
configure_file(${PROJECT_SOURCE_DIR}/src/lib/libconfsvc.pc.in libconfsvc.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libconfsvc.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
include(ConfsvcDocs)

install(FILES ${PROJECT_SOURCE_DIR}/kits/cpp/confsvc_test.hpp
              ${PROJECT_SOURCE_DIR}/kits/cpp/confsvc_test_channel.hpp
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

if(TARGET confsim)
    set_target_properties(confsim PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS confsim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT simulator)
    install(TARGETS confsim_watch COMPONENT simulator
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/confsim)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/kits/python/confsvc_test
            DESTINATION ${CONFSVC_PYTHON_DIR} COMPONENT simulator FILES_MATCHING PATTERN "*.py")
    install(FILES ${PROJECT_SOURCE_DIR}/kits/wireshark/confsvc.lua COMPONENT simulator
            DESTINATION ${CMAKE_INSTALL_DATADIR}/confsvc)
    set(completions ${PROJECT_SOURCE_DIR}/tools/confsim/completions)
    install(FILES ${completions}/confsim.bash RENAME confsim COMPONENT simulator
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    install(FILES ${completions}/_confsim COMPONENT simulator
            DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()
