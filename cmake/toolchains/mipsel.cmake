# MIPS32, little-endian, the o32 calling convention, with floating point in hardware.
set(pelkin_architecture mipsel)
set(pelkin_processor mipsel)
set(pelkin_triplet mipsel-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
