# Tests of plugins for CTest. Part of the package: find_package(confsvc) brings it.
#
#     confsvc_add_plugin_test(NAME name PLUGIN target
#                             [SCRIPT file]      # commands for confsim; default: name.confsim
#                             [CONFIG file]      # the configuration at the beginning
#                             [YANG file...]     # modules of the data, or directories of them
#                             [TRACE form...]    # jsonl, pcapng: every frame, secrets masked
#                             [ARGUMENTS word...] # of the plugin
#                             [OPTIONS word...])  # further ones of confsim
#
# The test passes when each command of the script succeeds and the plugin ends in good order. Its cases
# are in NAME.junit.xml in the build directory, for CI systems that show them one by one; a trace is
# beside it, in NAME.jsonl or NAME.pcapng. confsim is looked for beside the package, then in PATH;
# CONFSVC_CONFSIM says where it is otherwise.

function(confsvc_add_plugin_test)
    cmake_parse_arguments(PARSE_ARGV 0 test "" "NAME;PLUGIN;SCRIPT;CONFIG"
                          "YANG;TRACE;ARGUMENTS;OPTIONS")
    if(NOT test_NAME OR NOT test_PLUGIN OR test_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "confsvc_add_plugin_test() needs NAME and PLUGIN, "
                            "and does not know: ${test_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT CONFSVC_CONFSIM)
        message(FATAL_ERROR "confsvc_add_plugin_test() needs confsim; set CONFSVC_CONFSIM to its path")
    endif()
    if(NOT test_SCRIPT)
        set(test_SCRIPT ${test_NAME}.confsim)
    endif()
    set(words --script)
    foreach(file IN LISTS test_SCRIPT)
        cmake_path(ABSOLUTE_PATH file)
        list(APPEND words ${file})
    endforeach()
    foreach(option CONFIG YANG)
        string(TOLOWER ${option} name)
        foreach(file IN LISTS test_${option})
            cmake_path(ABSOLUTE_PATH file)
            list(APPEND words --${name} ${file})
        endforeach()
    endforeach()
    string(MAKE_C_IDENTIFIER ${test_NAME} file)
    foreach(form IN LISTS test_TRACE)
        list(APPEND words --trace-file ${CMAKE_CURRENT_BINARY_DIR}/${file}.${form})
    endforeach()
    add_test(NAME ${test_NAME}
             COMMAND ${CONFSVC_CONFSIM} run ${words} ${test_OPTIONS}
                     --report junit:${CMAKE_CURRENT_BINARY_DIR}/${file}.junit.xml
                     -- $<TARGET_FILE:${test_PLUGIN}> ${test_ARGUMENTS})
endfunction()
