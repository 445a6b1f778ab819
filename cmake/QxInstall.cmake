# The files that `cmake --install` installs, and their places.
#
#   component module  the module, at the path from which the service loads it
#   component sdk     headers, static libraries, the CMake package, the pkg-config file, examples: for agents and hosts
#   component library libqxreport.so.0
#   component python  the Python module qxreport
#   component tools   qxctl, its manual pages and shell completions
#   component view    qxview, its manual page and unit, where libmicrohttpd-dev is installed
#   component book    the pages of docs/ as HTML, with QX_BUILD_BOOK
#   component agent   qxagent, its manual page, unit, user and directories, where libsystemd-dev is installed
#   component relay   qxrelay, its manual pages, units, user and example settings, where libnats-dev is installed
#
# The service loads the module from an absolute path, so --prefix does not move it: stage with DESTDIR, or configure
# with a QX_MODULE_DIR below the prefix.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QX_MODULE_DIR /opt/norrlek/QuaxelSuite/KRX/Provider CACHE STRING
  "Where the module is installed; a relative directory is below the prefix")

set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(qx_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/qxremconxfer)
set(qx_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/QXRemConXfer)
set(qx_examples_dir ${CMAKE_INSTALL_DATADIR}/doc/libqxremconxfer-dev/examples)

install(TARGETS QXRemConXfer LIBRARY DESTINATION ${QX_MODULE_DIR} COMPONENT module)

# The sources that define the module's exports are compiled with a description of their types, so that the ABI can be
# compared with packaging/abi/QXRemConXfer.abi. The other sources have only line numbers. An installed module has
# neither.
set_property(SOURCE provider/Exports.cpp provider/Module.cpp TARGET_DIRECTORY qx_provider
  APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-g>)
set_property(SOURCE reportfile/ReportFileBase.cpp TARGET_DIRECTORY qx_reportfile
  APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-g>)
set_property(SOURCE sdk/QxReport.cpp TARGET_DIRECTORY qxreport
  APPEND PROPERTY COMPILE_OPTIONS $<$<CONFIG:Release>:-g>)

# The headers that agents and hosts include; after the empty line, the headers that these include.
set(qx_public_headers
  base/CriticalSection.h
  debug/Debug.h
  debug/DebugTraceConfig.h
  debug/SysLogTraces.h
  inifile/IniFile.h
  markup/Markup.h
  process/Process.h
  provider/FileTransferProvider.h
  provider/KrxAdapterModule.h
  provider/KrxGenData.h
  provider/KrxRequestParams.h
  provider/ModuleExports.h
  provider/QXString.h
  provider/ServerControlPaths.h
  provider/ThreadData.h
  registry/Registry.h
  registry/RegistryNode.h
  registry/StrMap.h
  reportfile/Directory.h
  reportfile/ReportFileBase.h
  sdk/Error.h
  sdk/Reader.h
  sdk/Writer.h
  sdk/qxreport.h

  debug/EntryHeader.h
  debug/LogFileSink.h
  debug/LogHeader.h
  debug/RingBufferSink.h
  debug/RingFormat.h
  reportfile/StoreFormat.h)
foreach(header ${qx_public_headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${qx_include_dir}/${folder} COMPONENT sdk)
endforeach()

# Each archive defines symbols that the archives before it need. The pkg-config file has the same order.
set(qx_public_libraries
  qx_sdk qx_reportfile_tools qx_provider qx_reportfile qx_paths qx_markup qx_inifile qx_registry qx_trace_object qx_debug qx_process
  qx_base_tools qx_base)

qx_library(qx_trace_object SOURCES packaging/TraceObject.cpp DEPS qx_debug)
target_link_libraries(qx_debug PUBLIC $<INSTALL_INTERFACE:QXRemConXfer::trace_object>)

foreach(library ${qx_public_libraries})
  string(REGEX REPLACE "^qx_" "" name ${library})
  set_target_properties(${library} PROPERTIES EXPORT_NAME ${name})
  target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${qx_include_dir}>)
  target_compile_features(${library} INTERFACE cxx_std_20)
  target_link_libraries(${library} PUBLIC $<INSTALL_INTERFACE:Threads::Threads>)
endforeach()
install(TARGETS ${qx_public_libraries} EXPORT QXRemConXferTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT sdk)

# libqxreport.so.0 for programs, the link without the version for the linker, and the Python module that loads it.
set_target_properties(qxreport PROPERTIES EXPORT_NAME qxreport)
target_include_directories(qxreport INTERFACE $<INSTALL_INTERFACE:${qx_include_dir}>)
install(TARGETS qxreport EXPORT QXRemConXferTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT sdk)
install(FILES sdk/python/qxreport.py DESTINATION lib/python3/dist-packages COMPONENT python)
install(EXPORT QXRemConXferTargets NAMESPACE QXRemConXfer:: DESTINATION ${qx_config_dir} COMPONENT sdk)

configure_package_config_file(cmake/QXRemConXferConfig.cmake.in ${PROJECT_BINARY_DIR}/QXRemConXferConfig.cmake
  INSTALL_DESTINATION ${qx_config_dir} PATH_VARS qx_include_dir)
# Before 1.0 a new minor version may change what agents compile against.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QXRemConXferConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/QXRemConXferConfig.cmake ${PROJECT_BINARY_DIR}/QXRemConXferConfigVersion.cmake
  DESTINATION ${qx_config_dir} COMPONENT sdk)

# The pkg-config file computes the prefix from its own path, so a tree may be moved as a whole.
set(qx_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH qx_pc_to_prefix /prefix/${qx_pc_dir} /prefix/)
string(REGEX REPLACE "/$" "" qx_pc_to_prefix ${qx_pc_to_prefix})
list(TRANSFORM qx_public_libraries PREPEND -l OUTPUT_VARIABLE qx_pc_libraries)
list(JOIN qx_pc_libraries " " qx_pc_libraries)
if(IS_ABSOLUTE ${QX_MODULE_DIR})
  set(qx_pc_module_dir ${QX_MODULE_DIR})
else()
  set(qx_pc_module_dir "\${prefix}/${QX_MODULE_DIR}")
endif()
configure_file(cmake/qxremconxfer.pc.in ${PROJECT_BINARY_DIR}/qxremconxfer.pc @ONLY)
configure_file(cmake/qxreport.pc.in ${PROJECT_BINARY_DIR}/qxreport.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qxremconxfer.pc ${PROJECT_BINARY_DIR}/qxreport.pc
  DESTINATION ${qx_pc_dir} COMPONENT sdk)

install(DIRECTORY examples/ DESTINATION ${qx_examples_dir} COMPONENT sdk
  PATTERN *.py PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

if(QX_BUILD_TOOLS)
  install(TARGETS qxctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  foreach(unit qxctl-backup.service qxctl-backup.timer qxctl-fetch@.service qxctl-fetch@.timer)
    install(FILES packaging/systemd/${unit} DESTINATION lib/systemd/system COMPONENT tools)
  endforeach()
  if(TARGET qxagent)
    install(TARGETS qxagent RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT agent)
    install(FILES packaging/systemd/qxagent.service DESTINATION lib/systemd/system COMPONENT agent)
    install(FILES packaging/systemd/qxagent.sysusers DESTINATION lib/sysusers.d RENAME qxagent.conf COMPONENT agent)
    install(FILES packaging/systemd/qxagent.tmpfiles DESTINATION lib/tmpfiles.d RENAME qxagent.conf COMPONENT agent)
  endif()
  if(TARGET qxrelay)
    install(TARGETS qxrelay RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT relay)
    install(FILES packaging/systemd/qxrelay-send.service packaging/systemd/qxrelay-receive.service
      DESTINATION lib/systemd/system COMPONENT relay)
    install(FILES packaging/systemd/qxrelay.sysusers DESTINATION lib/sysusers.d RENAME qxrelay.conf COMPONENT relay)
    install(DIRECTORY packaging/examples/qxrelay/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/qxrelay/examples COMPONENT relay)
  endif()
  if(TARGET qxview)
    install(TARGETS qxview RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT view)
    install(FILES packaging/systemd/qxview.service DESTINATION lib/systemd/system COMPONENT view)
  endif()
  include(cmake/QxManual.cmake)
endif()

include(cmake/QxBook.cmake)
