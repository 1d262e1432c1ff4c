# Run by CPack where it has laid out the package.
file(MAKE_DIRECTORY "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/bin")
file(CREATE_LINK "../lib/vendra/bin/vendra" "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/bin/vendra" SYMBOLIC)
