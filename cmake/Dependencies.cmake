# Third-party packages, all from the distribution.

set(Boost_USE_STATIC_LIBS OFF)
find_package(Boost 1.81 REQUIRED COMPONENTS log log_setup regex filesystem thread)
find_package(Poco 1.11 REQUIRED COMPONENTS Foundation Net NetSSL JSON Util)
find_package(OpenSSL 3 REQUIRED)
find_package(CLI11 REQUIRED)
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBEDIT REQUIRED IMPORTED_TARGET libedit)

# The distribution's interpreter, whatever other python the PATH may hold.
set(Python3_EXECUTABLE /usr/bin/python3)
find_package(Python3 3.11 EXACT REQUIRED COMPONENTS Interpreter Development.Embed)

add_compile_definitions(BOOST_ALL_DYN_LINK BOOST_BIND_GLOBAL_PLACEHOLDERS)
