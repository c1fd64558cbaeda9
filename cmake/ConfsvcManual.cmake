# The manual pages, made from the headers, docs/man and docs/confsim.md by scripts/manual/pages.py.
# Without Python 3 there are none.
find_package(Python3 COMPONENTS Interpreter)
if(NOT Python3_FOUND)
    message(STATUS "Python 3 is missing: no manual pages")
    return()
endif()

set(manual_dir ${PROJECT_BINARY_DIR}/man)
file(GLOB manual_sources CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/include/*.h ${PROJECT_SOURCE_DIR}/docs/man/*
     ${PROJECT_SOURCE_DIR}/docs/man/examples/* ${PROJECT_SOURCE_DIR}/scripts/manual/*.py)
add_custom_command(OUTPUT ${manual_dir}/made
                   COMMAND ${CMAKE_COMMAND} -E rm -rf ${manual_dir}
                   COMMAND ${Python3_EXECUTABLE} -B ${PROJECT_SOURCE_DIR}/scripts/manual/pages.py
                           ${PROJECT_SOURCE_DIR} ${manual_dir}
                   COMMAND ${CMAKE_COMMAND} -E touch ${manual_dir}/made
                   DEPENDS ${manual_sources} ${PROJECT_SOURCE_DIR}/docs/confsim.md
                           ${PROJECT_SOURCE_DIR}/src/lib/libconfsvc.map
                   COMMENT "Making the manual pages" VERBATIM)
add_custom_target(manual ALL DEPENDS ${manual_dir}/made)

foreach(section IN ITEMS 1 5)
    install(DIRECTORY ${manual_dir}/man${section} DESTINATION ${CMAKE_INSTALL_MANDIR}
            COMPONENT simulator)
endforeach()
foreach(section IN ITEMS 3 7)
    install(DIRECTORY ${manual_dir}/man${section} DESTINATION ${CMAKE_INSTALL_MANDIR}
            COMPONENT development)
endforeach()
