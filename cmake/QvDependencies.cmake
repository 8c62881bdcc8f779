# Third-party dependencies, all from Debian packages (see `./run setup`).

find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc i18n)
find_package(PkgConfig REQUIRED)
