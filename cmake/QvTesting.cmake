# Test registration. Every test case runs as its own process inside a fresh device sandbox
# (see platform/host/sandbox), so tests may write to "/mnt/ext1", "/zelgrot" or "/tmp" freely
# and run in parallel.

include(GoogleTest)
find_package(GTest REQUIRED)

# The device image: files the device ships, copied into every sandbox. The build tree's own
# image holds what the build generates (archives, scripts) on top of the repository's.
set(QV_DEVICE_IMAGE_SOURCE ${PROJECT_SOURCE_DIR}/device)
set(QV_DEVICE_IMAGE_BUILD ${PROJECT_BINARY_DIR}/device)
file(MAKE_DIRECTORY ${QV_DEVICE_IMAGE_BUILD})
set(QV_SANDBOX_COMMAND
    ${PROJECT_BINARY_DIR}/bin/devsandbox
    --image ${QV_DEVICE_IMAGE_SOURCE}
    --image ${QV_DEVICE_IMAGE_BUILD}
    --keep ${PROJECT_SOURCE_DIR}
    --keep ${PROJECT_BINARY_DIR}
    --)

# The ThreadSanitizer pass builds only what the tests of threaded code need:
#     cmake --build <dir> --target threaded_tests && ctest --test-dir <dir> -L threaded
add_custom_target(threaded_tests)

# qv_add_gtest(<name> SOURCES <files...> [LIBS <targets...>] [LABELS <labels...>]
#              [TIMEOUT <seconds>])
# LABELS "threaded" marks the tests that the ThreadSanitizer pass runs. A test that runs other
# programs of the build names them with add_dependencies(<name> <program>), which the
# ThreadSanitizer pass then builds too.
function(qv_add_gtest name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBS;LABELS" ${ARGN})
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    add_executable(${name} ${ARG_SOURCES})
    qv_strict_warnings(${name})
    target_link_libraries(${name} PRIVATE qv_test_support ${ARG_LIBS})
    set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${QV_SANDBOX_COMMAND}")
    add_dependencies(${name} devsandbox)
    if("threaded" IN_LIST ARG_LABELS)
        add_dependencies(threaded_tests ${name})
    endif()
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 60
        PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
