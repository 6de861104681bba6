/*
 * Which loaded object and which symbol an address belongs to, by the rules of dladdr() but without
 * the loader's lock, so that a signal handler may ask at any moment. The loader's list of objects
 * and their dynamic symbol tables are read as they stand, through crash/checked_memory.h: a list
 * that another thread is changing, or that is damaged, costs names but never a fault.
 */
#ifndef PELKIN_CRASH_SYMBOLS_H
#define PELKIN_CRASH_SYMBOLS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CRASH_NAME_SIZE 256

struct crash_symbol {
    char object[CRASH_NAME_SIZE]; /* the object's file name; empty when not known */
    char name[CRASH_NAME_SIZE];   /* empty when no symbol covers the address */
    uintptr_t offset;             /* from the symbol's address to the address asked for */
};

/* Finds the head of the loader's list. Once, before the other functions; takes the loader's lock.
 */
void crash_symbols_init(void);

/* 0, or -1 when no loaded object contains `address`; `*symbol` is then not to be used. */
int32_t crash_find_symbol(uintptr_t address, struct crash_symbol *symbol);

/* 1 when `address` lies in an executable segment of a loaded object, else 0. */
int32_t crash_is_code(uintptr_t address);

#ifdef __cplusplus
}
#endif
#endif
