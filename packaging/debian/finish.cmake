# CPack runs this script between staging and packing. It adds to each component what only a Debian package has
# (copyright, changelog, lintian overrides, the trace directory), compresses manual pages and strips binaries, the way
# debhelper does.

find_program(QX_STRIP NAMES ${CPACK_QX_STRIP} strip REQUIRED)
find_program(QX_GZIP gzip REQUIRED)
set(qx_file_mode FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

function(qx_run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(qx_add_documents root package)
  set(doc ${root}/usr/share/doc/${package})
  file(COPY ${CPACK_QX_DEBIAN_DIR}/copyright DESTINATION ${doc} ${qx_file_mode})
  file(COPY ${CPACK_QX_DEBIAN_DIR}/changelog DESTINATION ${doc} ${qx_file_mode})
  file(RENAME ${doc}/changelog ${doc}/changelog.Debian)
  qx_run(${QX_GZIP} -9n ${doc}/changelog.Debian)
  set(overrides ${CPACK_QX_DEBIAN_DIR}/${package}.lintian-overrides)
  if(EXISTS ${overrides})
    set(place ${root}/usr/share/lintian/overrides)
    file(COPY ${overrides} DESTINATION ${place} ${qx_file_mode})
    file(RENAME ${place}/${package}.lintian-overrides ${place}/${package})
  endif()
endfunction()

function(qx_compress_manual root)
  file(GLOB_RECURSE pages ${root}/usr/share/man/*.[1-8])
  foreach(page ${pages})
    qx_run(${QX_GZIP} -9n ${page})
  endforeach()
endfunction()

function(qx_strip root)
  file(GLOB_RECURSE archives ${root}/*.a)
  file(GLOB_RECURSE binaries ${root}/*.so ${root}/*.so.*.*.* ${root}/usr/bin/*)
  foreach(archive ${archives})
    qx_run(${QX_STRIP} --strip-debug --remove-section=.comment --enable-deterministic-archives ${archive})
  endforeach()
  foreach(binary ${binaries})
    if(IS_SYMLINK ${binary})
      continue()  # the target may be in another package
    endif()
    qx_run(${QX_STRIP} --strip-unneeded --remove-section=.comment --remove-section=.note ${binary})
  endforeach()
endfunction()

# Makes the trace directory, which only root may write: traces contain user names and requests.
function(qx_add_trace_directory root)
  file(MAKE_DIRECTORY ${root}/var/log/brollan)
  qx_run(chmod 0755 ${root}/var ${root}/var/log ${root}/var/log/brollan)
endfunction()

foreach(component ${CPACK_COMPONENTS_ALL})
  set(root ${CPACK_TEMPORARY_DIRECTORY}/${component})
  string(TOUPPER ${component} upper)
  qx_add_documents(${root} ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  qx_compress_manual(${root})
  qx_strip(${root})
  if(component STREQUAL module)
    qx_add_trace_directory(${root})
  endif()
endforeach()
