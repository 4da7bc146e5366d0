# The tests. `core` needs no interpreter; all others run under the one that the module is built for.

if(DECISION_BOUNDS_GTEST_SOURCE)
    set(INSTALL_GTEST OFF)
    add_subdirectory("${DECISION_BOUNDS_GTEST_SOURCE}" googletest EXCLUDE_FROM_ALL)
    set(GTest_FOUND TRUE)
else()
    find_package(GTest)
endif()

if(GTest_FOUND)
    file(GLOB core_test_sources CONFIGURE_DEPENDS tests/core/*.cpp)
    add_executable(core_tests ${core_test_sources})
    target_link_libraries(core_tests PRIVATE decision_bounds::core GTest::gmock_main decision_bounds_warnings)
    add_test(NAME core COMMAND core_tests)
    set_tests_properties(core PROPERTIES ENVIRONMENT GTEST_BRIEF=1)

    # Each header is all that its reader needs to include.
    file(GLOB headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}/engines"
         engines/decision_bounds/*.hpp)
    foreach(header IN LISTS headers ITEMS decision_bounds/version.hpp)
        file(CONFIGURE OUTPUT "alone/${header}.cpp" CONTENT "#include \"@header@\"\n" @ONLY)
        list(APPEND alone "${PROJECT_BINARY_DIR}/alone/${header}.cpp")
    endforeach()
    add_library(core_headers_alone OBJECT ${alone})
    target_link_libraries(core_headers_alone PRIVATE decision_bounds::core decision_bounds_warnings)
    set_target_properties(core_headers_alone PROPERTIES CXX_CLANG_TIDY "")
else()
    # The demo is built without GoogleTest; `scripts/setup test` installs it.
    message(STATUS "GoogleTest was not found: the tests of the core are left out")
endif()

if(DECISION_BOUNDS_SANITIZERS MATCHES "fuzzer")
    foreach(fuzzer texts_fuzzer bounds_fuzzer)
        add_executable(${fuzzer} tests/fuzz/${fuzzer}.cpp tests/fuzz/fuzzer.cpp)
        target_link_libraries(${fuzzer} PRIVATE decision_bounds::core decision_bounds_warnings)
        target_link_options(${fuzzer} PRIVATE -fsanitize=fuzzer)
    endforeach()
endif()

if(NOT DECISION_BOUNDS_MODULE)
    return()
endif()

# add_python_test(NAME PATH ARGUMENT...): runs unittest with the arguments and PATH as PYTHONPATH. The
# working directory is searched first, so it must not be the build tree, which has an `engines` of its
# own.
function(add_python_test name path)
    add_test(
        NAME ${name}
        COMMAND "${python}" -m unittest ${ARGN}
        WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}")
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "PYTHONPATH=${path};${sanitizer_environment}")
endfunction()

if(DECISION_BOUNDS_SANITIZERS AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(STATUS "The module is tested under a sanitizer with g++ only")
    return()
endif()

if(DECISION_BOUNDS_SANITIZERS MATCHES "address")
    # The interpreter is not built with the sanitizer, so its runtime must be there before all else, and
    # the C++ library with it, whose throw it wraps at start. What the interpreter itself leaves at
    # exit is no leak of ours; its own allocator would hide a use after free.
    foreach(library libasan.so libstdc++.so)
        execute_process(
            COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${library}
            OUTPUT_VARIABLE path
            OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
        list(APPEND preloaded "${path}")
    endforeach()
    list(JOIN preloaded ":" preloaded)
    set(sanitizer_environment "LD_PRELOAD=${preloaded}" "ASAN_OPTIONS=detect_leaks=0"
                              "PYTHONMALLOC=malloc")
endif()

set(with_examples "${PROJECT_BINARY_DIR}:${PROJECT_SOURCE_DIR}")
add_python_test(module "${PROJECT_BINARY_DIR}" discover -s tests/module -t .)
add_python_test(example "${with_examples}" discover -s tests/example -t .)
add_python_test(readme "${with_examples}" discover -s tests/readme -t .)
add_python_test(walks "${PROJECT_BINARY_DIR}" discover -s tests/walks -t .)
add_python_test(faults "${PROJECT_BINARY_DIR}" discover -s tests/faults -t .)
add_python_test(hammer "${PROJECT_BINARY_DIR}" discover -s tests/hammer -t .)
add_python_test(fuzz "${PROJECT_BINARY_DIR}" discover -s tests/fuzz -t .)
# What the other examples need of the package index is left to `scripts/check`.
add_python_test(in_order "${with_examples}" discover -s examples/in_order/tests -t .)
add_subdirectory(examples/cpp_pass)
add_python_test(cpp_pass "${PROJECT_SOURCE_DIR}" examples.cpp_pass.test_program)
set_property(TEST cpp_pass APPEND PROPERTY ENVIRONMENT "CPP_PASS=$<TARGET_FILE:cpp_pass>")
add_python_test(asyncio_pass "${with_examples}" examples.asyncio_pass.tests.test_admission
                examples.asyncio_pass.tests.test_many_calls examples.asyncio_pass.tests.test_waiters)
if(NOT DECISION_BOUNDS_SANITIZERS)
    # The same tests on the twin in plain Python: an expectation that both share is no accident of either.
    add_python_test(plain "${PROJECT_SOURCE_DIR}/tests/twin" discover -s tests/module -t .)
    add_python_test(hammer_plain "${PROJECT_SOURCE_DIR}/tests/twin" discover -s tests/hammer -t .)
endif()
