/*
 * Compile-time checks of a record's layout, in every C from C89 and every C++ from C++98 on. Where
 * the language has no such check, a type is declared that cannot be when the layout differs.
 */
#ifndef PELKIN_CORE_WIRE_ASSERT_H
#define PELKIN_CORE_WIRE_ASSERT_H

#include <stddef.h>

#if defined(__cplusplus) && __cplusplus >= 201103L
#define WIRE_ASSERT_(holds, text) static_assert(holds, text)
#elif !defined(__cplusplus) && defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define WIRE_ASSERT_(holds, text) _Static_assert(holds, text)
#else
/* A name of its own for each: the same type declared twice is an error in C89. */
#define WIRE_JOIN_(a, b) a##b
#define WIRE_NAME_(number) WIRE_JOIN_(wire_layout_differs_, number)
#define WIRE_ASSERT_(holds, text) typedef char WIRE_NAME_(__COUNTER__)[(holds) ? 1 : -1]
#endif

#define WIRE_OFFSET(type, field, offset)                                                           \
    WIRE_ASSERT_(offsetof(type, field) == (offset), #field " is at another offset")
#define WIRE_SIZE(type, size) WIRE_ASSERT_(sizeof(type) == (size), #type " has another size")

#endif
