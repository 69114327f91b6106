# SPDX-License-Identifier: Apache-2.0
# The one place for compiler and linker flags: warnings for every build, hardening for a release.
function(cpuwarden_target_flags target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)
  if(CPUWARDEN_HARDEN)
    target_compile_options(${target} PRIVATE
      -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS
      -fstack-protector-strong -fstack-clash-protection -fcf-protection=full
      -ffunction-sections -fdata-sections)
    target_link_options(${target} PRIVATE
      -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed)
  endif()
endfunction()
