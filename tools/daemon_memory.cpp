#include "tools/daemon_memory.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <link.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/daemon_process.h"

using elf_header = ElfW(Ehdr);
using elf_section = ElfW(Shdr);
using elf_segment = ElfW(Phdr);
using elf_symbol = ElfW(Sym);

// A record at an offset of the file, or none when it does not lie within it.
template <typename Record>
static std::optional<Record> record_at(const std::string &file, uint64_t offset)
{
    Record record;
    if (offset > file.size() || file.size() - offset < sizeof record) {
        return std::nullopt;
    }
    std::memcpy(&record, file.data() + offset, sizeof record);
    return record;
}

static std::optional<elf_header> read_header(const std::string &file)
{
    const std::optional<elf_header> header = record_at<elf_header>(file, 0);
    const unsigned char own_class = sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32;
    return header && std::memcmp(header->e_ident, ELFMAG, SELFMAG) == 0 &&
                   header->e_ident[EI_CLASS] == own_class
               ? header
               : std::nullopt;
}

static std::optional<elf_section> section_at(const std::string &file, const elf_header &header,
                                             size_t number)
{
    return number < header.e_shnum
               ? record_at<elf_section>(file, header.e_shoff + number * sizeof(elf_section))
               : std::nullopt;
}

static bool is_named(const std::string &file, uint64_t offset, const std::string &name)
{
    return offset < file.size() &&
           file.compare((size_t)offset, name.size() + 1, name.c_str(), name.size() + 1) == 0;
}

static std::optional<uint64_t> find_in_table(const std::string &file, const elf_header &header,
                                             const elf_section &table, const std::string &name)
{
    const std::optional<elf_section> names = section_at(file, header, table.sh_link);
    for (uint64_t at = 0; names && at < table.sh_size; at += sizeof(elf_symbol)) {
        const std::optional<elf_symbol> symbol = record_at<elf_symbol>(file, table.sh_offset + at);
        if (!symbol) {
            break;
        }
        if (symbol->st_shndx != SHN_UNDEF && symbol->st_size == sizeof(uint32_t) &&
            is_named(file, names->sh_offset + symbol->st_name, name)) {
            return symbol->st_value;
        }
    }
    return std::nullopt;
}

// The address of a word in the file, from its table for the loader or, in a static program, from
// the linker's.
static std::optional<uint64_t> find_word(const std::string &file, const elf_header &header,
                                         const std::string &name)
{
    for (size_t i = 0; i < header.e_shnum; i++) {
        const std::optional<elf_section> table = section_at(file, header, i);
        if (table && (table->sh_type == SHT_DYNSYM || table->sh_type == SHT_SYMTAB)) {
            const std::optional<uint64_t> value = find_in_table(file, header, *table, name);
            if (value) {
                return value;
            }
        }
    }
    return std::nullopt;
}

// Where the file's first bytes are to be, by its own segments.
static std::optional<uint64_t> own_base(const std::string &file, const elf_header &header)
{
    for (size_t i = 0; i < header.e_phnum; i++) {
        const std::optional<elf_segment> segment =
            record_at<elf_segment>(file, header.e_phoff + i * sizeof(elf_segment));
        if (segment && segment->p_type == PT_LOAD && segment->p_offset == 0) {
            return segment->p_vaddr;
        }
    }
    return std::nullopt;
}

// Where they are.
static std::optional<uint64_t> mapped_base(pid_t pid)
{
    struct stat program = {};
    if (stat(proc_path(pid, "exe").c_str(), &program) != 0) {
        return std::nullopt;
    }
    std::ifstream maps(proc_path(pid, "maps"));
    std::string line;
    while (std::getline(maps, line)) {
        unsigned long long start = 0;
        unsigned long long offset = 0;
        unsigned long long inode = 0;
        if (std::sscanf(line.c_str(), "%llx-%*s %*s %llx %*s %llu", &start, &offset, &inode) == 3 &&
            offset == 0 && inode == program.st_ino) {
            return start;
        }
    }
    return std::nullopt;
}

static std::optional<uint32_t> read_word(int memory, std::optional<uint64_t> address)
{
    uint32_t word = 0;
    if (!address || pread(memory, &word, sizeof word, (off_t)*address) != (ssize_t)sizeof word) {
        return std::nullopt;
    }
    return word;
}

in_force read_in_force(pid_t pid)
{
    const std::string file = read_text(proc_path(pid, "exe")).value_or("");
    const std::optional<elf_header> header = read_header(file);
    const std::optional<uint64_t> mapped = mapped_base(pid);
    if (!header || !mapped) {
        return {};
    }
    const std::optional<uint64_t> own = own_base(file, *header);
    const int memory = open(proc_path(pid, "mem").c_str(), O_RDONLY | O_CLOEXEC);
    const auto read_named = [&](const char *name) {
        const std::optional<uint64_t> value = find_word(file, *header, name);
        return own && value ? read_word(memory, *mapped - *own + *value) : std::nullopt;
    };
    const in_force words = {.level = read_named("tu_trace_level"),
                            .verification_ignored = read_named("ignore_fb_token_verification"),
                            .result_ignored = read_named("ignore_fb_token_verification_result")};
    if (memory >= 0) {
        close(memory);
    }
    return words;
}
