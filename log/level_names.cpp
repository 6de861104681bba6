#include "log/level_names.h"

#include <limits.h>
#include <stdlib.h>
#include <strings.h>

const struct level_name tu_prioritynames[9] = {
    {"emerg", 0},  {"alert", 1}, {"crit", 2},  {"err", 3},    {"warning", 4},
    {"notice", 5}, {"info", 6},  {"debug", 7}, {nullptr, -1},
};

const struct level_name tu_facilitynames[10] = {
    {"local0", 0x80}, {"local1", 0x88}, {"local2", 0x90}, {"local3", 0x98}, {"local4", 0xA0},
    {"local5", 0xA8}, {"local6", 0xB0}, {"local7", 0xB8}, {"keep", 0xF0},   {nullptr, -1},
};

const struct level_name tu_flowlevel[4] = {
    {"client", -1},
    {"general", 0},
    {"flowlevel", 1},
    {"all", 2},
};

const char *vesk_syslog_encode(int32_t value, const struct level_name *table)
{
    for (; table->value != -1; table++) {
        if (table->value == value) {
            return table->name;
        }
    }
    return nullptr;
}

int32_t vesk_syslog_decode(const char *name, const struct level_name *table)
{
    if (name[0] >= '0' && name[0] <= '9') {
        const long number = strtol(name, nullptr, 10);
        return number <= INT_MAX && vesk_syslog_encode((int32_t)number, table) != nullptr
                   ? (int32_t)number
                   : -1;
    }
    for (; table->name != nullptr; table++) {
        if (strcasecmp(table->name, name) == 0) {
            return table->value;
        }
    }
    return -1;
}
