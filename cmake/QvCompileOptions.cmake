# Compiler settings shared by every target of the project.

# Rebuilds of the same sources (several build directories, several checkouts) come from the
# compiler cache when the machine has one.
# A base directory in the cache's own settings would hand the compiler relative paths, and
# __FILE__ would then escape the prefix map below: the launcher clears it.
find_program(QV_CCACHE ccache)
if(QV_CCACHE)
    set(_qv_launcher ${CMAKE_COMMAND} -E env CCACHE_BASEDIR= ${QV_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${_qv_launcher})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${_qv_launcher})
endif()

# Warnings are errors on our own code only; third-party headers come in as system includes.
function(qv_strict_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()

# __FILE__ in log lines is the path inside the repository ("common_utilities/qv_sqlite.cpp"),
# not the absolute path of whoever built it.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(QV_SANITIZE)
    string(REPLACE "," ";" _qv_sanitizers "${QV_SANITIZE}")
    foreach(_s IN LISTS _qv_sanitizers)
        if(NOT _s MATCHES "^(address|undefined|thread)$")
            message(FATAL_ERROR "QV_SANITIZE: unknown sanitizer '${_s}'")
        endif()
    endforeach()
    if("thread" IN_LIST _qv_sanitizers AND "address" IN_LIST _qv_sanitizers)
        message(FATAL_ERROR "QV_SANITIZE: thread and address cannot be combined")
    endif()
    set(_qv_flags "-fsanitize=${QV_SANITIZE}" -fno-omit-frame-pointer -g)
    if("undefined" IN_LIST _qv_sanitizers)
        # A finding must fail the test, not scroll by in its output.
        list(APPEND _qv_flags -fno-sanitize-recover=all)
    endif()
    add_compile_options(${_qv_flags})
    add_link_options("-fsanitize=${QV_SANITIZE}")
endif()

# ---- Fuzzing ----------------------------------------------------------------------------------
# The fuzz build instruments everything for coverage (the library is what the fuzzer explores);
# only the fuzz targets link libFuzzer's driver. It needs clang and runs under AddressSanitizer and
# UndefinedBehaviorSanitizer, so that an out-of-bounds access is a finding and not luck.
if(QV_BUILD_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
        message(FATAL_ERROR "QV_BUILD_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++)")
    endif()
    if(NOT QV_SANITIZE STREQUAL "address,undefined")
        message(FATAL_ERROR "QV_BUILD_FUZZ needs -DQV_SANITIZE=address,undefined")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
