# Debian packages of the install tree, built by CPack from this build
# (`cpack -G DEB` in the build directory, or the `package` target):
#   libdb-intf1     runtime: libdb-intf.so.1* and libelem-platform.so.1*
#   libdb-intf-dev  dev: headers, the unversioned .so links, CMake package,
#                   pkg-config file
#   db-intf-tools   tools: db-shell, ipc-router, ipc-status, manual pages
# Only these three install components are packaged; the test archive and the
# test and benchmark programs are never installed.

set(DB_INTF_MAINTAINER "libdb-intf maintainers <maintainers@users.noreply.c-seed-0d192ae8.example>"
    CACHE STRING "Maintainer field of the Debian packages")

set(CPACK_PACKAGE_NAME db-intf)
# Each package's description starts with its own summary line. CPack puts the
# package-wide summary in front of it unless that summary is CPack's default.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${DB_INTF_MAINTAINER})
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_STRIP_FILES ON)
# Dependencies on Debian's runtime packages come from dpkg-shlibdeps; our own
# libraries are found in the build tree, and each package that needs them
# depends on libdb-intf1 of exactly this version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libdb-intf${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)  # a shlibs file for packages built against us
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "small object store over SQLite and LevelDB for embedded daemons
libdb-intf gives the daemons of an embedded network element a small object
store: a table declared once as named, typed fields, whose records are stored,
updated, retrieved, filtered, counted and deleted by numeric id, over SQLite
(file or shared in-memory) or LevelDB. It also maps protobuf messages onto
records, offers debug commands for the element's command shell, and exports
a messaging interface through which the daemons of a node find, watch and
message each other.
This package holds the shared libraries libdb-intf and elem-platform (the
stand-ins for the element's platform).")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libdb-intf-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# What the headers, the CMake package and the pkg-config file need.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libprotobuf-dev, libboost-dev (>= 1.74), libsqlite3-dev, libleveldb-dev")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "small object store over SQLite and LevelDB - development files
libdb-intf gives the daemons of an embedded network element a small object
store over SQLite and LevelDB, a protobuf front end and a messaging interface.
This package holds the headers, the unversioned shared library links, the
CMake package (find_package(db-intf)) and the pkg-config file (db-intf).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME db-intf-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "operator tools of libdb-intf (db-shell, ipc-router, ipc-status)
db-shell opens a database written by libdb-intf read-only and runs the debug
commands of its tables. ipc-router is the node's message router of the
libdb-intf messaging interface; ipc-status shows its endpoints, watches and
counters.")

include(CPack)
