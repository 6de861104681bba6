# What makes a fault harder to exploit, as far as compiler, linker and processor have it. Under a
# sanitizer nothing of it: sanitizers bring checks of their own, and FORTIFY would hide calls from them.
include(CheckCompilerFlag)
include(CheckLinkerFlag)
include(CheckPIESupported)

option(PELKIN_HARDENING "Build with stack protector, FORTIFY and their like" ON)
if(NOT PELKIN_HARDENING OR PELKIN_SANITIZE OR PELKIN_FUZZ)
  return()
endif()

# Position-independent programs; the libraries in them too.
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# FORTIFY needs the optimizer. Level 2: 3 costs code for sizes that are known at run time only, and
# all buffers here have fixed ones. With it the C library warns of each result of chdir() or write()
# that is ignored, which a cast does not silence; the sanitizers' builds look at results of our own.
add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2;-Wno-unused-result>")
# The control-flow protection is x86's, the branch protection ARM's.
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection=full
    -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "PELKIN_HAS${flag}" has)
  check_compiler_flag(CXX "-Werror ${flag}" ${has})
  if(${has})
    add_compile_options(${flag})
  endif()
endforeach()
foreach(flag relro now noexecstack)
  check_linker_flag(CXX "LINKER:-z,${flag}" PELKIN_LINKS_${flag})
  if(PELKIN_LINKS_${flag})
    add_link_options("LINKER:-z,${flag}")
  endif()
endforeach()
set(PELKIN_HARDENED ON)
