# AArch64.
set(pelkin_architecture arm64)
set(pelkin_processor aarch64)
set(pelkin_triplet aarch64-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
