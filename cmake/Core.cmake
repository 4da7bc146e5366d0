# The bounds in plain C++: the library decision_bounds::core.

configure_file(cmake/version.hpp.in include/decision_bounds/version.hpp @ONLY)

add_library(
    decision_bounds_core STATIC
    engines/decision_bounds/native_condition.cpp
    engines/decision_bounds/native_daily_spend.cpp
    engines/decision_bounds/native_host.cpp
    engines/decision_bounds/native_request_rates.cpp
    engines/decision_bounds/native_run_budget.cpp
    engines/decision_bounds/native_summary.cpp
    engines/decision_bounds/text.cpp)
add_library(decision_bounds::core ALIAS decision_bounds_core)
set_target_properties(decision_bounds_core PROPERTIES EXPORT_NAME core)
target_compile_features(decision_bounds_core PUBLIC cxx_std_20)
target_include_directories(
    decision_bounds_core
    PUBLIC "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/engines>"
           "$<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>"
           "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
target_link_libraries(
    decision_bounds_core
    PUBLIC Threads::Threads
    PRIVATE "$<BUILD_INTERFACE:decision_bounds_warnings>")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # So that other compilers can link the library as well, where it is built with LTO.
    target_compile_options(decision_bounds_core PRIVATE -ffat-lto-objects)
endif()
