# The install tree, laid out twice from the same rules: by every build as <build>/root, and by `cmake --install`.

set(CONNECTOR_ROOT "${CMAKE_BINARY_DIR}/root")
# The folder's name is fixed on every platform.
set(CONNECTOR_MODULE_DIR "bin/win64")

# connector_place(TARGET FOLDER): the target's file is built into FOLDER of the tree and installed there.
function(connector_place target folder)
  set_target_properties(${target} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY "${CONNECTOR_ROOT}/${folder}"
    LIBRARY_OUTPUT_DIRECTORY "${CONNECTOR_ROOT}/${folder}")
  install(TARGETS ${target}
    RUNTIME DESTINATION ${folder}
    LIBRARY DESTINATION ${folder})
  file(RELATIVE_PATH to_lib "/${folder}" "/lib")
  set_target_properties(${target} PROPERTIES
    BUILD_RPATH "\$ORIGIN/${to_lib}" INSTALL_RPATH "\$ORIGIN/${to_lib}" BUILD_WITH_INSTALL_RPATH ON)
endfunction()

foreach(folder ${CONNECTOR_MODULE_DIR}/connector_plugins ui remote toolbox/vendra/connector2/connector/docroot derived test)
  file(MAKE_DIRECTORY "${CONNECTOR_ROOT}/${folder}")
  install(DIRECTORY DESTINATION ${folder})
endforeach()

# Content for browsers.
set(CONNECTOR_DOCROOT toolbox/vendra/connector2/connector/docroot)
file(GLOB docroot_files RELATIVE ${CMAKE_SOURCE_DIR}/content/docroot CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/content/docroot/*)
foreach(name ${docroot_files})
  configure_file(${CMAKE_SOURCE_DIR}/content/docroot/${name} ${CONNECTOR_ROOT}/${CONNECTOR_DOCROOT}/${name} COPYONLY)
endforeach()
install(DIRECTORY ${CMAKE_SOURCE_DIR}/content/docroot/ DESTINATION ${CONNECTOR_DOCROOT})
