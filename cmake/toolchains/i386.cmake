# 32 bits of x86.
set(pelkin_architecture i386)
set(pelkin_processor i686)
set(pelkin_triplet i686-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
