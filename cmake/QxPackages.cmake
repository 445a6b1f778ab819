# Debian packages by CPack, one for each component; script/package builds and checks them. QxInstall.cmake decides what
# they contain; packaging/debian/finish.cmake adds what only a package has.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qxremconxfer)
set(CPACK_PACKAGE_CONTACT "QXRemConXfer developers <qxremconxfer@example.org>")
set(CPACK_COMPONENTS_ALL module sdk library python tools)  # and others, below
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_SET_DESTDIR ON)  # the module's path is absolute
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_QX_VERSION ${PROJECT_VERSION}-1)  # the first entry of packaging/debian/changelog has the same
set(CPACK_QX_DEBIAN_DIR ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_QX_STRIP ${CMAKE_STRIP})
if(CMAKE_CROSSCOMPILING)
  # Without this, CPack takes the processor of this machine.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
    ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()
set(CPACK_PRE_BUILD_SCRIPTS ${CPACK_QX_DEBIAN_DIR}/finish.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CPACK_QX_DEBIAN_DIR}/repack.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://example.org/qxremconxfer)
# Maintainer scripts get the same permissions, whatever the umask was when the sources were checked out.
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(qx_same_version "(= ${CPACK_QX_VERSION})")

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME qxremconxfer)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_MODULE_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_MODULE_PACKAGE_SUGGESTS qxctl)
set(CPACK_DEBIAN_MODULE_DESCRIPTION "report provider for the KRX connector service
The module that the connector service of the agent suite loads to hand reports
to remote management clients. Agents on this machine keep reports as rings of
text records; a client reads them in chunks, as XML documents.")

set(CPACK_DEBIAN_SDK_PACKAGE_NAME libqxremconxfer-dev)
set(CPACK_DEBIAN_SDK_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_SDK_PACKAGE_DEPENDS "libqxreport0 ${qx_same_version}, libc6-dev, libstdc++-12-dev | libstdc++-dev")
set(CPACK_DEBIAN_SDK_PACKAGE_RECOMMENDS "qxremconxfer ${qx_same_version}, g++ | c++-compiler, pkg-config | cmake")
set(CPACK_DEBIAN_SDK_DESCRIPTION "libraries for agents that keep reports, and headers for hosts
Static libraries and headers for agents that keep reports (record store,
registry, INI files, traces, markup documents, processes), and the C headers
for programs that load the provider module. A CMake package, a pkg-config
file and examples show how to use them.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libqxreport0)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CPACK_QX_DEBIAN_DIR}/shlibs ${CPACK_QX_DEBIAN_DIR}/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "writes and reads reports of the agent suite
Appends text records to the report rings that the report provider transfers,
and reads them: one writer at a time, many records in one call, errors with a
reason. The interface is plain C.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qxreport)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "libqxreport0 ${qx_same_version}, python3")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "writes and reads reports of the agent suite, from Python
A typed Python module on libqxreport0: appends records to reports, reads them,
and waits for new ones.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qxctl)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS qxremconxfer)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "works with reports and the provider module
Fetches reports through the provider module as a remote client would, checks,
backs up, restores and repairs report files, reads traces, and shows and
changes the registry and INI files.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${CPACK_QX_DEBIAN_DIR}/tools/postinst
  ${CPACK_QX_DEBIAN_DIR}/tools/prerm ${CPACK_QX_DEBIAN_DIR}/tools/postrm)

if(QX_BUILD_BOOK)
  list(APPEND CPACK_COMPONENTS_ALL book)
endif()
set(CPACK_DEBIAN_BOOK_PACKAGE_NAME qxremconxfer-doc)
set(CPACK_DEBIAN_BOOK_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_BOOK_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_BOOK_DESCRIPTION "book of the report provider and its tools
How to use the report provider, its tools and its libraries: setting up a
machine, operations, security, file formats and interfaces, as HTML pages.")

if(TARGET qxagent)
  list(APPEND CPACK_COMPONENTS_ALL agent)
endif()
set(CPACK_DEBIAN_AGENT_PACKAGE_NAME qxagent)
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_AGENT_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers, systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS qxremconxfer)
set(CPACK_DEBIAN_AGENT_PACKAGE_SUGGESTS qxctl)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA ${CPACK_QX_DEBIAN_DIR}/agent/postinst
  ${CPACK_QX_DEBIAN_DIR}/agent/prerm ${CPACK_QX_DEBIAN_DIR}/agent/postrm)
set(CPACK_DEBIAN_AGENT_DESCRIPTION "samples a machine into reports
Writes load, memory, disks and network of this machine into reports, which
the report provider transfers. Runs as a service of its own user.")

if(TARGET qxrelay)
  list(APPEND CPACK_COMPONENTS_ALL relay)
endif()
set(CPACK_DEBIAN_RELAY_PACKAGE_NAME qxrelay)
set(CPACK_DEBIAN_RELAY_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_RELAY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RELAY_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_RELAY_PACKAGE_SUGGESTS "nats-server, qxctl")
set(CPACK_DEBIAN_RELAY_PACKAGE_CONTROL_EXTRA ${CPACK_QX_DEBIAN_DIR}/relay/postinst
  ${CPACK_QX_DEBIAN_DIR}/relay/prerm ${CPACK_QX_DEBIAN_DIR}/relay/postrm)
set(CPACK_DEBIAN_RELAY_DESCRIPTION "carries reports of many hosts to collectors
Sends the records of a host's reports into a JetStream stream of NATS servers,
and writes them from there into reports on a collector: each record once and
in order, with exact counts of what a ring overwrote.")

if(TARGET qxview)
  list(APPEND CPACK_COMPONENTS_ALL view)
endif()
set(CPACK_DEBIAN_VIEW_PACKAGE_NAME qxview)
set(CPACK_DEBIAN_VIEW_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_VIEW_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_VIEW_PACKAGE_DEPENDS "libjs-dygraphs")
set(CPACK_DEBIAN_VIEW_PACKAGE_SUGGESTS "qxctl, qxrelay")
set(CPACK_DEBIAN_VIEW_PACKAGE_CONTROL_EXTRA ${CPACK_QX_DEBIAN_DIR}/view/postinst
  ${CPACK_QX_DEBIAN_DIR}/view/prerm ${CPACK_QX_DEBIAN_DIR}/view/postrm)
set(CPACK_DEBIAN_VIEW_DESCRIPTION "shows reports, traces and findings in a browser
Serves pages and a JSON interface about the reports of this machine, or of a
collector of the relay, on the loopback network: what is wrong first, live
charts, records and traces. It reads and changes nothing.")

include(CPack)
