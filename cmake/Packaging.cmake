# SPDX-License-Identifier: Apache-2.0
# Where everything goes below the prefix, on every distribution: one rule for each file, by which the Debian package is
# made as well.
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
install(DIRECTORY packaging/slurm packaging/prometheus DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
