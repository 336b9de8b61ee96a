# quorvane_link_python_sources()
#
# Makes <build>/python/quorvane a mirror of src/quorvane in symbolic links, one per file, so that
# edits are live while the extensions are built beside the links and never into src/.
function(quorvane_link_python_sources)
    set(source_root ${PROJECT_SOURCE_DIR}/src)
    set(tree_root ${PROJECT_BINARY_DIR}/python)

    # A link whose source has gone would still be importable from stale bytecode or mislead a glob.
    file(GLOB_RECURSE links ${tree_root}/*.py ${tree_root}/*.pyi ${tree_root}/*.css
        ${tree_root}/py.typed)
    foreach(link IN LISTS links)
        if(IS_SYMLINK ${link} AND NOT EXISTS ${link})
            file(REMOVE ${link})
        endif()
    endforeach()

    file(GLOB_RECURSE sources CONFIGURE_DEPENDS RELATIVE ${source_root}
        ${source_root}/*.py ${source_root}/*.pyi ${source_root}/*.css
        ${source_root}/py.typed)
    foreach(source IN LISTS sources)
        get_filename_component(folder ${tree_root}/${source} DIRECTORY)
        file(MAKE_DIRECTORY ${folder})
        file(CREATE_LINK ${source_root}/${source} ${tree_root}/${source} SYMBOLIC)
    endforeach()
endfunction()
