# SPDX-License-Identifier: Apache-2.0
# What is installed beside the program, and the Debian package, which scripts/package builds.
foreach(page Cpuwarden.1 cpuwarden-agent.conf.5 cpuwardenctl.8)
  configure_file(packaging/man/${page}.in packaging/man/${page} @ONLY)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES packaging/cpuwardenctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME cpuwardenctl)

set(CPUWARDEN_MAINTAINER "the Cpuwarden developers <cpuwarden@lists.example.org>"
  CACHE STRING "Whom users of the package should write to")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME cpuwarden)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# For what has its place outside the prefix or is compressed, which a plain installation does not want.
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
