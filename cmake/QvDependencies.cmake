# Third-party dependencies, all from Debian packages (see `./run setup`).

find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc i18n)
find_package(PkgConfig REQUIRED)

# HTTP: libcurl (Debian's OpenSSL flavour) for requests, libcrypto for the request digest, and
# cpp-httplib for the loopback servers of the tests and benchmarks.
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED COMPONENTS Crypto SSL)
pkg_check_modules(HTTPLIB IMPORTED_TARGET cpp-httplib)

# User agent: Boost's header-only uuid (random generator) for GenerateUUID.
find_package(Boost 1.74 REQUIRED)

# Reader notes: jsoncpp for the JSON bodies of notes.
find_package(jsoncpp CONFIG REQUIRED)
