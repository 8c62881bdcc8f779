# The archives of version scripts that the device ships beside each database's program.

# qv_db_scripts_archive(<target> SOURCE_DIR <dir> DESTINATION <path inside the device image>)
# Packs the *.sql and *.sh files of <dir>, at the archive's top level, into a gzip-compressed tar
# archive in the build's device image. An empty directory gives an empty archive: the device
# always has one to unpack.
function(qv_db_scripts_archive target)
    cmake_parse_arguments(ARG "" "SOURCE_DIR;DESTINATION" "" ${ARGN})
    file(GLOB scripts CONFIGURE_DEPENDS ${ARG_SOURCE_DIR}/*.sql ${ARG_SOURCE_DIR}/*.sh)
    set(names "")
    foreach(script IN LISTS scripts)
        get_filename_component(name ${script} NAME)
        string(APPEND names "${name}\n")
    endforeach()
    set(list_file ${CMAKE_CURRENT_BINARY_DIR}/${target}.files)
    file(CONFIGURE OUTPUT ${list_file} CONTENT "${names}")

    set(archive ${PROJECT_BINARY_DIR}/device/${ARG_DESTINATION})
    get_filename_component(archive_dir ${archive} DIRECTORY)
    add_custom_command(OUTPUT ${archive}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${archive_dir}
        COMMAND tar -czf ${archive} --sort=name --owner=0 --group=0 --numeric-owner
                -C ${ARG_SOURCE_DIR} --files-from ${list_file}
        DEPENDS ${scripts} ${list_file}
        COMMENT "Packing the version scripts into ${ARG_DESTINATION}"
        VERBATIM)
    add_custom_target(${target} ALL DEPENDS ${archive})
endfunction()
