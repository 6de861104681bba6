# ARMv7 with floating point in hardware.
set(pelkin_architecture armhf)
set(pelkin_processor armv7l)
set(pelkin_triplet arm-linux-gnueabihf)
include("${CMAKE_CURRENT_LIST_DIR}/debian.cmake")
