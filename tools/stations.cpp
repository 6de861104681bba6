#include "tools/stations.h"

#include <algorithm>

#include "tools/output.h"
#include "tools/text_fields.h"

bool parse_station(const std::string &text, reauth_sta *station)
{
    const std::vector<std::string> parts = split_at_commas(text);
    mac_address mac = {};
    *station = {};
    if (parts.size() != 4 || !parse_mac(parts[0], &mac) || parts[1].empty() ||
        parts[1].size() >= sizeof station->token || !parse_uint32(parts[2], &station->incoming) ||
        !parse_uint32(parts[3], &station->outgoing)) {
        return false;
    }
    std::copy(mac.begin(), mac.end(), station->mac);
    parts[1].copy(station->token, sizeof station->token - 1);
    return true;
}

bool read_stations(const std::string &path, std::vector<reauth_sta> *stations)
{
    std::vector<numbered_line> lines;
    if (!read_lines(path, &lines)) {
        return false;
    }
    for (const numbered_line &line : lines) {
        reauth_sta station;
        if (!parse_station(line.text, &station)) {
            say("%s:%zu: not a station; write MAC,TOKEN,INCOMING,OUTGOING, the token with 1 to %zu "
                "characters",
                path.c_str(), line.number, sizeof station.token - 1);
            return false;
        }
        stations->push_back(station);
    }
    return true;
}
