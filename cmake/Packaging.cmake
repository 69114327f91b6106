# SPDX-License-Identifier: Apache-2.0
# Where everything goes below the prefix, on every distribution; and the Debian package, which is made of the same rules
# and built by scripts/package.
foreach(page Cpuwarden.1 cpuwarden-agent.conf.5 cpuwardenctl.8)
  configure_file(packaging/man/${page}.in packaging/${page} @ONLY)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES packaging/cpuwardenctl.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME cpuwardenctl)

# Not in CMAKE_INSTALL_LIBDIR, which is another one for each architecture: systemd has one place for all, see
# systemd.unit(5) and tmpfiles.d(5).
configure_file(packaging/cpuwarden-cgroup.service.in packaging/cpuwarden-cgroup.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/cpuwarden-cgroup.service DESTINATION lib/systemd/system)
install(FILES packaging/cpuwarden.conf DESTINATION lib/tmpfiles.d)

install(FILES LICENSE CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES packaging/agent.conf packaging/cpuwarden-metrics.service packaging/cpuwarden-metrics.timer
  packaging/worker@.service
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY packaging/slurm DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CPUWARDEN_MAINTAINER "the Cpuwarden developers <cpuwarden@lists.example.org>"
  CACHE STRING "Whom users of the package should write to")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cpuwarden)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/assemble.cmake)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CPUWARDEN_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Cpuwarden starts a worker program, gives it a core or a CPU quota of its own,
ends it when its time is up, and exits with its status.
.
The launchers of a host agree among themselves, without a daemon, which core
each worker gets or whether there is room for one more quota. One static
program for cgroup v1 and v2; a boot-time unit prepares the host.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postinst
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/prerm
  ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
