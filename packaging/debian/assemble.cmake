# SPDX-License-Identifier: Apache-2.0
# CPack runs this when the program is installed into the tree that is to be packed, and before it packs it.
set(packaging ${CMAKE_CURRENT_LIST_DIR}/..)
set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
set(doc ${root}/usr/share/doc/cpuwarden)
set(overrides ${root}/usr/share/lintian/overrides)

function(place file directory name)
  file(MAKE_DIRECTORY ${directory})
  configure_file(${file} ${directory}/${name} @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

place(${packaging}/cpuwarden-cgroup.service ${root}/lib/systemd/system cpuwarden-cgroup.service)
place(${packaging}/cpuwarden.tmpfiles ${root}/usr/lib/tmpfiles.d cpuwarden.conf)
foreach(example agent.conf cpuwarden-metrics.service cpuwarden-metrics.timer)
  place(${packaging}/${example} ${doc}/examples ${example})
endforeach()
place(${packaging}/debian/copyright ${doc} copyright)
place(${packaging}/debian/changelog.in ${doc} changelog)
place(${packaging}/debian/lintian-overrides ${overrides} cpuwarden)

# Without the name and the time of the file, for the sake of reproducible packages.
file(GLOB compressed ${root}/usr/share/man/man*/* ${doc}/changelog)
execute_process(COMMAND gzip -n -9 ${compressed} COMMAND_ERROR_IS_FATAL ANY)
