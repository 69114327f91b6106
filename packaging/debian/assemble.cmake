# SPDX-License-Identifier: Apache-2.0
# CPack runs this between installing the program into the tree that is to be packed and packing it. It does what Debian
# wants on top: its own copyright file for the licence, its own changelog, lintian's overrides, and compression.
set(debian ${CMAKE_CURRENT_LIST_DIR})
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share)
set(doc ${share}/doc/cpuwarden)

function(place file directory name)
  file(MAKE_DIRECTORY ${directory})
  configure_file(${file} ${directory}/${name} @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()

file(REMOVE ${doc}/LICENSE)
place(${debian}/copyright ${doc} copyright)
place(${debian}/changelog.in ${doc} changelog)
place(${debian}/lintian-overrides ${share}/lintian/overrides cpuwarden)

# Without the name and the time of the file, for the sake of reproducible packages.
file(GLOB compressed ${share}/man/man*/* ${doc}/changelog)
execute_process(COMMAND gzip -n -9 ${compressed} COMMAND_ERROR_IS_FATAL ANY)
