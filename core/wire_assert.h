/* Compile-time checks of a record's layout, for C and C++ alike. */
#ifndef PELKIN_CORE_WIRE_ASSERT_H
#define PELKIN_CORE_WIRE_ASSERT_H

#include <stddef.h>

#ifdef __cplusplus
#define WIRE_ASSERT_ static_assert
#else
#define WIRE_ASSERT_ _Static_assert
#endif

#define WIRE_OFFSET(type, field, offset)                                                           \
    WIRE_ASSERT_(offsetof(type, field) == (offset), #field " is at another offset")
#define WIRE_SIZE(type, size) WIRE_ASSERT_(sizeof(type) == (size), #type " has another size")

#endif
