# `cpack --config build/release/CPackConfig.cmake`, or `make deb`: a package of the install tree in /usr/lib/vendra, with
# the command in /usr/bin.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vendra)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Script host whose running interpreter browsers and programs reach")
set(CPACK_PACKAGE_CONTACT "The Vendra maintainers <maintainers@users.noreply.localhost>")
set(CPACK_PACKAGE_FILE_NAME vendra)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr/lib/vendra)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CONNECTOR_ROOT}/lib")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "xdg-utils")
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_LIST_DIR}/package_command.cmake")
include(CPack)
