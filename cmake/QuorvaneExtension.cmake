# quorvane_static_library(<name> <flags target> <source>...)
#
# A static library of position-independent code. Without sources it is an interface target, so
# that what links to it need not ask.
function(quorvane_static_library name flags)
    if(ARGN)
        add_library(${name} STATIC ${ARGN})
        target_link_libraries(${name} PUBLIC ${flags})
    else()
        message(STATUS "${name} has no sources yet")
        add_library(${name} INTERFACE)
        target_link_libraries(${name} INTERFACE ${flags})
    endif()
endfunction()

# quorvane_extension(NAME <module> PACKAGE <folder under quorvane/> SOURCES <source>...)
#
# The extension module quorvane.<package>.<module>. It is built into the importable tree at
# <build>/python and installed into the wheel at the same place.
function(quorvane_extension)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME;PACKAGE" "SOURCES")
    if(NOT arg_SOURCES)
        message(STATUS "quorvane/${arg_PACKAGE}/${arg_NAME} has no sources yet")
        return()
    endif()

    set(target ext_${arg_NAME})
    Python_add_library(${target} MODULE WITH_SOABI ${arg_SOURCES})
    target_link_libraries(${target} PRIVATE quorvane_capi quorvane_kernels quorvane_python)
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${arg_NAME}
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/python/quorvane/${arg_PACKAGE}
    )
    install(TARGETS ${target} LIBRARY DESTINATION quorvane/${arg_PACKAGE})
endfunction()
