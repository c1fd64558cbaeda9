# What measures work without a peer, and the counts of instructions, which need no other package.
# Both take what leaves no library, and are bound at once like the shared one.
function(add_local_program name)
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE confsvc_static confsvc_sandbox confsvc_warnings ${ARGN})
    target_link_options(${name} PRIVATE LINKER:-z,now)
endfunction()

# The counts kept are those of one compiler with one set of options.
if(CONFSVC_TESTS AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT CMAKE_CROSSCOMPILING
   AND NOT CONFSVC_SANITIZE AND CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
    add_local_program(instructions)
    add_test(NAME ${CONFSVC_TEST_PREFIX}instructions
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/instructions.sh ${PROJECT_BINARY_DIR})
    set_tests_properties(${CONFSVC_TEST_PREFIX}instructions PROPERTIES SKIP_RETURN_CODE 77
                                                                       TIMEOUT 300)
elseif(CONFSVC_BENCH)
    add_local_program(instructions)
endif()
