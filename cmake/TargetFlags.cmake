# SPDX-License-Identifier: Apache-2.0
# The one place for compiler and linker flags: warnings for every build, hardening for a release. The presets with which
# this is developed make errors of the warnings; who packages this with another compiler, or another optimisation, may see
# warnings that nobody has seen yet.
include(CheckCXXCompilerFlag)

# The flags that guard jumps and returns belong to one architecture each; the stack's is not known to every compiler.
function(cpuwarden_flags_of_target target)
  # Some compilers only warn of a flag that their target does not have.
  set(CMAKE_REQUIRED_FLAGS -Werror)
  foreach(flag -fcf-protection=full -mbranch-protection=standard -fstack-clash-protection)
    string(MAKE_C_IDENTIFIER "CPUWARDEN${flag}" supported)
    check_cxx_compiler_flag(${flag} ${supported})
    if(${supported})
      target_compile_options(${target} PRIVATE ${flag})
    endif()
  endforeach()
endfunction()

function(cpuwarden_target_flags target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
  # As hardening has it: what leaves the bounds of a container ends the program at once.
  target_compile_definitions(${target} PRIVATE $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
  if(CPUWARDEN_HARDEN)
    target_compile_options(${target} PRIVATE
      -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS
      -fstack-protector-strong -ffunction-sections -fdata-sections)
    cpuwarden_flags_of_target(${target})
    target_link_options(${target} PRIVATE
      -Wl,-z,relro,-z,now,-z,noexecstack -Wl,--gc-sections -Wl,--as-needed)
  endif()
endfunction()
