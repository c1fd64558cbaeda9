# Installs the pages and the examples below CMAKE_INSTALL_DOCDIR, placed as in the sources, so that the
# links between them hold. A link to a header leads to where that is installed; a link to what is not
# installed becomes plain text.
file(GLOB_RECURSE pages RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/docs/*.md)
list(PREPEND pages README.md CHANGELOG.md LICENSE)

# installed_text(VARIABLE PAGE): the text of the page as it is installed.
function(installed_text result page)
    file(READ ${PROJECT_SOURCE_DIR}/${page} text)
    get_filename_component(source_dir ${PROJECT_SOURCE_DIR}/${page} DIRECTORY)
    get_filename_component(installed_dir ${CMAKE_INSTALL_FULL_DOCDIR}/${page} DIRECTORY)
    # Without the bracket in front, which would keep CMake from taking the list apart.
    string(REGEX MATCHALL "\\([a-zA-Z0-9_./-]+" links "${text}")
    list(REMOVE_DUPLICATES links)
    foreach(link IN LISTS links)
        string(SUBSTRING "${link}" 1 -1 target)
        get_filename_component(absolute ${source_dir}/${target} ABSOLUTE)
        file(RELATIVE_PATH from_top ${PROJECT_SOURCE_DIR} ${absolute})
        if(from_top MATCHES "^include/(.*)")
            file(RELATIVE_PATH header ${installed_dir}
                 ${CMAKE_INSTALL_FULL_INCLUDEDIR}/${CMAKE_MATCH_1})
            string(REPLACE "](${target})" "](${header})" text "${text}")
        elseif(NOT from_top IN_LIST pages AND NOT from_top MATCHES "^examples(/|$)")
            string(REPLACE "." "\\." target "${target}")
            string(REGEX REPLACE "\\[([^]\n]*)\\]\\(${target}(#[^)]*)?\\)" "\\1" text "${text}")
        endif()
    endforeach()
    set(${result} "${text}" PARENT_SCOPE)
endfunction()

foreach(page IN LISTS pages)
    installed_text(text ${page})
    file(WRITE ${PROJECT_BINARY_DIR}/installed/${page} "${text}")
    get_filename_component(directory ${page} DIRECTORY)
    install(FILES ${PROJECT_BINARY_DIR}/installed/${page}
            DESTINATION ${CMAKE_INSTALL_DOCDIR}/${directory} COMPONENT documentation)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${page})
endforeach()

install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
        COMPONENT development USE_SOURCE_PERMISSIONS)
