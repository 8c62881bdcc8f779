# Server programs of the tests, shared with the benchmarks (which are built without the tests):
# included from both; the programs are defined by whichever comes first.

# test_http_server: loopback HTTP and HTTPS on cpp-httplib. Route groups are routes_*.cpp.
if(NOT TARGET test_http_server)
    file(GLOB QV_HTTP_SERVER_ROUTES CONFIGURE_DEPENDS
        ${PROJECT_SOURCE_DIR}/tests/support/http_server/routes_*.cpp)
    add_executable(test_http_server
        ${PROJECT_SOURCE_DIR}/tests/support/http_server/main.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/http_server/routes.cpp
        ${PROJECT_SOURCE_DIR}/tests/support/http_server/self_signed.cpp
        ${QV_HTTP_SERVER_ROUTES})
    qv_strict_warnings(test_http_server)
    target_link_libraries(test_http_server PRIVATE
        PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto Threads::Threads)
    # The server's threads run inside the packaged HTTP library, which is built without the race
    # detector: the detector then misreads that library's own hand-offs as races and ends the
    # server in the middle of a test. The server is not what the race pass examines.
    if(QV_SANITIZE MATCHES "thread")
        target_compile_options(test_http_server PRIVATE -fno-sanitize=thread)
        target_link_options(test_http_server PRIVATE -fno-sanitize=thread)
    endif()
endif()

# What a program needs to start and stop the servers (see server_process.h). The tests get it
# through qv_test_support; a benchmark links this.
set(QV_SERVER_PROCESS_SOURCES
    ${PROJECT_SOURCE_DIR}/tests/support/child_process.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/server_process.cpp)

# test_time_server: a network clock off by a known amount, SNTP over UDP and a Date header over
# HTTP, each with the ways a server can let a client down.
if(NOT TARGET test_time_server)
    add_executable(test_time_server ${PROJECT_SOURCE_DIR}/tests/support/time_server/main.cpp)
    qv_strict_warnings(test_time_server)
endif()
