# The extension module, as build/<preset>/engines/decision_bounds<suffix of the interpreter>.

# -DPython3_EXECUTABLE names the interpreter, and $PYTHON where it is not given.
if(Python3_EXECUTABLE)
    set(ENV{PYTHON} "${Python3_EXECUTABLE}")
endif()
# Asked anew by every configuration, so that the build follows when another interpreter is chosen; the
# results that FindPython3 keeps do not.
execute_process(
    COMMAND "${PROJECT_SOURCE_DIR}/scripts/host_python"
    WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
    OUTPUT_VARIABLE python
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(
    COMMAND "${python}" -c "import platform, sysconfig
print(platform.python_version(), sysconfig.get_path('include'), sysconfig.get_config_var('EXT_SUFFIX'), sep=';')"
    OUTPUT_VARIABLE python_facts
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
list(GET python_facts 0 python_version)
list(GET python_facts 1 python_headers)
list(GET python_facts 2 module_suffix)
message(STATUS "Module for CPython ${python_version}: ${python}")

# Only the headers of the bounds are used here: their text is compiled for the interpreter's world.
# libpython is not linked, since the interpreter that loads the module provides its symbols.
# libgcc and libstdc++ stay shared: a thread that the interpreter ends at exit is unwound through the
# module's frames by the process's own unwinder, whose state a second copy need not understand.
file(GLOB module_sources CONFIGURE_DEPENDS engines/python_host/*.cpp)
add_library(decision_bounds_module MODULE ${module_sources})
target_include_directories(decision_bounds_module PRIVATE engines "${PROJECT_BINARY_DIR}/surface")
target_include_directories(decision_bounds_module SYSTEM PRIVATE "${python_headers}")
target_link_libraries(decision_bounds_module PRIVATE Threads::Threads decision_bounds_warnings)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # An operation is compiled into one piece: by itself, g++ stops inlining where so small a library
    # has grown by two fifths. Saves a seventh of a reserve+charge pair and of hold+settle.
    set(inline_limits --param=max-inline-insns-auto=400 --param=max-inline-insns-single=1000
                      --param=inline-unit-growth=400 --param=large-function-growth=1000)
    target_compile_options(decision_bounds_module PRIVATE ${inline_limits})
    target_link_options(decision_bounds_module PRIVATE ${inline_limits})
endif()
set_target_properties(
    decision_bounds_module
    PROPERTIES OUTPUT_NAME decision_bounds
               PREFIX ""
               SUFFIX "${module_suffix}"
               LIBRARY_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/engines")

# Hidden visibility alone still exports inline functions of the standard library.
if(APPLE)
    set(export_list "${PROJECT_SOURCE_DIR}/cmake/exports.apple")
    target_link_options(decision_bounds_module PRIVATE -undefined dynamic_lookup
                        "LINKER:-exported_symbols_list,${export_list}")
else()
    set(export_list "${PROJECT_SOURCE_DIR}/cmake/exports.map")
    target_link_options(decision_bounds_module PRIVATE "LINKER:--version-script,${export_list}")
endif()
set_target_properties(decision_bounds_module PROPERTIES LINK_DEPENDS "${export_list}")

# The surface is one text: the module executes it, and type checkers and editors read it beside the
# module.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS engines/decision_bounds.pyi)
file(READ engines/decision_bounds.pyi surface_text)
configure_file(cmake/surface_text.hpp.in surface/surface_text.hpp @ONLY)
configure_file(engines/decision_bounds.pyi engines/decision_bounds.pyi COPYONLY)
file(TOUCH "${PROJECT_BINARY_DIR}/engines/py.typed")

# What a wheel holds. The package `engines` is shared with the client's own modules, so it has no
# __init__.py; an installation of the C++ library leaves all of it out.
install(
    TARGETS decision_bounds_module
    LIBRARY DESTINATION engines
    COMPONENT decision_bounds_module EXCLUDE_FROM_ALL)
install(
    FILES "${PROJECT_BINARY_DIR}/engines/decision_bounds.pyi" "${PROJECT_BINARY_DIR}/engines/py.typed"
    DESTINATION engines
    COMPONENT decision_bounds_module EXCLUDE_FROM_ALL)
