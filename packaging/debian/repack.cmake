# CPack runs this script after packing. It removes the scripts that CPack adds to a package with a shared library. Those
# scripts call ldconfig, which dpkg does anyway because of the package's triggers.

find_program(QX_DPKG_DEB dpkg-deb REQUIRED)

foreach(package ${CPACK_PACKAGE_FILES})
  if(NOT package MATCHES "/libqxreport0_[^/]*\\.deb$")
    continue()
  endif()
  set(root ${CPACK_TEMPORARY_DIRECTORY}/repacked)
  file(REMOVE_RECURSE ${root})
  execute_process(COMMAND ${QX_DPKG_DEB} --raw-extract ${package} ${root} COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${root}/DEBIAN/postinst ${root}/DEBIAN/postrm)
  execute_process(COMMAND ${QX_DPKG_DEB} --root-owner-group -Z${CPACK_DEBIAN_COMPRESSION_TYPE} --build ${root} ${package}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${root})
endforeach()
