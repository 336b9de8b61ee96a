# quorvane_extension(NAME <module> PACKAGE <folder under quorvane/> SOURCES <source>...)
#
# The extension module quorvane.<package>.<module>. It is built into the importable tree at
# <build>/python and installed into the wheel at the same place. It shows the interpreter its PyInit
# function and nobody anything else: templates of the standard library would be shared with whatever
# other modules a process has loaded, compiled by others.
function(quorvane_extension)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME;PACKAGE" "SOURCES")
    set(target ext_${arg_NAME})
    Python_add_library(${target} MODULE WITH_SOABI ${arg_SOURCES})
    target_link_libraries(${target} PRIVATE
        quorvane_capi quorvane_kernels quorvane_python quorvane_thread_end)
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${arg_NAME}
        LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/python/quorvane/${arg_PACKAGE}
    )
    if(UNIX AND NOT APPLE)
        set(symbols ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
        file(CONFIGURE OUTPUT ${symbols} CONTENT "{ global: PyInit_${arg_NAME}; local: *; };\n")
        target_link_options(${target} PRIVATE LINKER:--version-script=${symbols})
        set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${symbols})
    endif()
    install(TARGETS ${target} LIBRARY DESTINATION quorvane/${arg_PACKAGE})
endfunction()
