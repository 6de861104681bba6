#include "crash/symbols.h"

#include <dlfcn.h>
#include <errno.h>
#include <link.h>
#include <string.h>

#include "crash/checked_memory.h"

// Bounds for walks over tables that may be damaged.
static const uint32_t OBJECTS_MOST = 4096;
static const uint32_t SEGMENTS_MOST = 256;
static const uint32_t DYNAMIC_ENTRIES_MOST = 1024;
static const uint32_t SYMBOLS_MOST = 1u << 22;

static const uintptr_t PAGE = 4096;
static const uint32_t SYMBOLS_PER_READ = 32;
static const uint32_t BUCKETS_PER_READ = 128;

// Where an object's program headers are.
struct segments {
    uintptr_t headers;
    uint32_t count;
};

// The main program's entry in the loader's list, and its headers. Written once by
// crash_symbols_init().
static uintptr_t first_object;
static struct segments program_segments;

// The parts of a dynamic section that a symbol's name is found by; 0 when missing.
struct symbol_tables {
    uintptr_t symbols;
    uintptr_t names;
    uintptr_t hash;
    uintptr_t gnu_hash;
};

#ifdef __UCLIBC__
extern "C" struct r_debug *_dl_debug_addr;

static const struct link_map *find_first_object(void)
{
    return _dl_debug_addr != nullptr ? _dl_debug_addr->r_map : nullptr;
}
#else
static const struct link_map *find_first_object(void)
{
    struct link_map *map = nullptr;
    void *program = dlopen(nullptr, RTLD_LAZY);
    if (program != nullptr) {
        (void)dlinfo(program, RTLD_DI_LINKMAP, &map);
        dlclose(program);
    }
    return map;
}
#endif

// The first object that the loader tells of is the program.
static int keep_program_segments(struct dl_phdr_info *info, size_t, void *)
{
    program_segments = {.headers = (uintptr_t)info->dlpi_phdr, .count = info->dlpi_phnum};
    return 1;
}

void crash_symbols_init(void)
{
    first_object = (uintptr_t)find_first_object();
    (void)dl_iterate_phdr(keep_program_segments, nullptr);
}

// An object begins with its ELF header, except that a program at a fixed address has no load bias
// to find it by.
static int32_t find_segments(const struct link_map *map, bool is_program, struct segments *found)
{
    if (is_program) {
        *found = program_segments;
        return found->headers == 0 ? -1 : 0;
    }
    ElfW(Ehdr) header;
    if (crash_read_memory(map->l_addr, &header, sizeof header) != 0 ||
        memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_phentsize != sizeof(ElfW(Phdr))) {
        return -1;
    }
    *found = {.headers = map->l_addr + header.e_phoff, .count = header.e_phnum};
    return 0;
}

// Segments are mapped in whole pages; `offset` is from the object's load address.
static bool holds(const ElfW(Phdr) * segment, uintptr_t offset)
{
    const uintptr_t first = segment->p_vaddr / PAGE;
    const uintptr_t last = (segment->p_vaddr + segment->p_memsz - 1) / PAGE;
    return segment->p_memsz != 0 && offset / PAGE >= first && offset / PAGE <= last;
}

// The flags (PF_R and so on) of the segment that contains `address`; 0 when none does.
static uint32_t segment_flags(const struct link_map *map, bool is_program, uintptr_t address)
{
    struct segments segments = {};
    if (find_segments(map, is_program, &segments) != 0) {
        return 0;
    }
    for (uint32_t i = 0; i < segments.count && i < SEGMENTS_MOST; i++) {
        ElfW(Phdr) segment;
        if (crash_read_memory(segments.headers + i * sizeof segment, &segment, sizeof segment) !=
            0) {
            return 0;
        }
        if (segment.p_type == PT_LOAD && holds(&segment, address - map->l_addr)) {
            return segment.p_flags;
        }
    }
    return 0;
}

// The loader's entry of the object that contains `address`, and the flags of the segment there.
static int32_t find_object(uintptr_t address, struct link_map *map, uint32_t *flags)
{
    uintptr_t entry = first_object;
    for (uint32_t i = 0; entry != 0 && i < OBJECTS_MOST; i++) {
        if (crash_read_memory(entry, map, sizeof *map) != 0) {
            return -1;
        }
        *flags = segment_flags(map, entry == first_object, address);
        if (*flags != 0) {
            return 0;
        }
        entry = (uintptr_t)map->l_next;
    }
    return -1;
}

// Some loaders turn the addresses of a dynamic section into absolute ones in place, some do not.
static uintptr_t absolute(const struct link_map *map, ElfW(Addr) address)
{
    return address < map->l_addr ? map->l_addr + address : address;
}

static int32_t read_symbol_tables(const struct link_map *map, struct symbol_tables *tables)
{
    *tables = {};
    for (uint32_t i = 0; i < DYNAMIC_ENTRIES_MOST; i++) {
        ElfW(Dyn) entry;
        if (crash_read_memory((uintptr_t)map->l_ld + i * sizeof entry, &entry, sizeof entry) != 0) {
            return -1;
        }
        switch (entry.d_tag) {
        case DT_NULL:
            return tables->symbols != 0 && tables->names != 0 ? 0 : -1;
        case DT_SYMTAB:
            tables->symbols = absolute(map, entry.d_un.d_ptr);
            break;
        case DT_STRTAB:
            tables->names = absolute(map, entry.d_un.d_ptr);
            break;
        case DT_HASH:
            tables->hash = absolute(map, entry.d_un.d_ptr);
            break;
        case DT_GNU_HASH:
            tables->gnu_hash = absolute(map, entry.d_un.d_ptr);
            break;
        default:
            break;
        }
    }
    return -1;
}

// The highest symbol index that a bucket of the GNU hash table starts with; 0 when unreadable.
static uint32_t highest_bucket(uintptr_t buckets, uint32_t count)
{
    uint32_t highest = 0;
    uint32_t part[BUCKETS_PER_READ];
    for (uint32_t done = 0; done < count && done < SYMBOLS_MOST; done += BUCKETS_PER_READ) {
        const uint32_t left = count - done;
        const uint32_t now = left < BUCKETS_PER_READ ? left : BUCKETS_PER_READ;
        if (crash_read_memory(buckets + done * sizeof *part, part, now * sizeof *part) != 0) {
            return 0;
        }
        for (uint32_t i = 0; i < now; i++) {
            highest = part[i] > highest ? part[i] : highest;
        }
    }
    return highest;
}

// The GNU hash table does not hold the number of symbols: it ends with the chain of the highest
// bucket, whose last element has bit 0 set.
static uint32_t count_by_gnu_hash(uintptr_t table)
{
    struct {
        uint32_t bucket_count;
        uint32_t first_symbol;
        uint32_t bloom_words;
        uint32_t bloom_shift;
    } header;
    if (crash_read_memory(table, &header, sizeof header) != 0) {
        return 0;
    }
    const uintptr_t buckets = table + sizeof header + header.bloom_words * sizeof(ElfW(Addr));
    const uintptr_t chains = buckets + header.bucket_count * sizeof(uint32_t);
    uint32_t last = highest_bucket(buckets, header.bucket_count);
    if (last < header.first_symbol) {
        return 0;
    }
    for (; last < SYMBOLS_MOST; last++) {
        uint32_t element = 0;
        if (crash_read_memory(chains + (last - header.first_symbol) * sizeof element, &element,
                              sizeof element) != 0) {
            return 0;
        }
        if ((element & 1) != 0) {
            return last + 1;
        }
    }
    return 0;
}

static uint32_t count_symbols(const struct symbol_tables *tables)
{
    uint32_t header[2] = {}; // of DT_HASH: buckets, chain elements; there is one of these a symbol
    if (tables->hash != 0) {
        return crash_read_memory(tables->hash, header, sizeof header) == 0 ? header[1] : 0;
    }
    return tables->gnu_hash != 0 ? count_by_gnu_hash(tables->gnu_hash) : 0;
}

// As dladdr() decides it; `offset` is from the object's load address.
static bool covers(const ElfW(Sym) * symbol, uintptr_t offset)
{
    // The type is in the same bits in both ELF classes.
    if (symbol->st_shndx == SHN_UNDEF || symbol->st_shndx == SHN_ABS ||
        ELF32_ST_TYPE(symbol->st_info) == STT_TLS) {
        return false;
    }
    const uintptr_t distance = offset - symbol->st_value;
    return offset >= symbol->st_value && (distance == 0 || distance < symbol->st_size);
}

// The nearest symbol at or below `offset` that covers it. 0, or -1 when there is none.
static int32_t find_nearest(const struct symbol_tables *tables, uintptr_t offset,
                            ElfW(Sym) * nearest)
{
    int32_t rc = -1;
    ElfW(Sym) part[SYMBOLS_PER_READ];
    const uint32_t count = count_symbols(tables);
    for (uint32_t done = 0; done < count && done < SYMBOLS_MOST; done += SYMBOLS_PER_READ) {
        const uint32_t left = count - done;
        const uint32_t now = left < SYMBOLS_PER_READ ? left : SYMBOLS_PER_READ;
        if (crash_read_memory(tables->symbols + done * sizeof *part, part, now * sizeof *part) !=
            0) {
            return rc;
        }
        for (uint32_t i = 0; i < now; i++) {
            if (covers(&part[i], offset) && (rc != 0 || part[i].st_value > nearest->st_value)) {
                *nearest = part[i];
                rc = 0;
            }
        }
    }
    return rc;
}

// The program's own entry has no name; it is known by the name that it was started with.
static void read_object_name(const struct link_map *map, struct crash_symbol *symbol)
{
    (void)crash_read_text((uintptr_t)map->l_name, symbol->object, sizeof symbol->object);
    if (symbol->object[0] == '\0') {
        (void)crash_read_text((uintptr_t)program_invocation_name, symbol->object,
                              sizeof symbol->object);
    }
}

int32_t crash_find_symbol(uintptr_t address, struct crash_symbol *symbol)
{
    struct link_map map;
    uint32_t flags = 0;
    *symbol = {};
    if (find_object(address, &map, &flags) != 0) {
        return -1;
    }
    read_object_name(&map, symbol);

    struct symbol_tables tables;
    ElfW(Sym) nearest = {};
    if (read_symbol_tables(&map, &tables) == 0 &&
        find_nearest(&tables, address - map.l_addr, &nearest) == 0) {
        (void)crash_read_text(tables.names + nearest.st_name, symbol->name, sizeof symbol->name);
        symbol->offset = address - map.l_addr - nearest.st_value;
    }
    return 0;
}

int32_t crash_is_code(uintptr_t address)
{
    struct link_map map;
    uint32_t flags = 0;
    return find_object(address, &map, &flags) == 0 && (flags & PF_X) != 0 ? 1 : 0;
}
