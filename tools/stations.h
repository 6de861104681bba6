/* The stations of a batch as text: MAC,TOKEN,INCOMING,OUTGOING. */
#ifndef PELKIN_TOOLS_STATIONS_H
#define PELKIN_TOOLS_STATIONS_H

#include <string>
#include <vector>

#include "social/reauth_msg.h"

/* False when the text is not of that form or a part of it does not fit its field. */
bool parse_station(const std::string &text, reauth_sta *station);

/* Adds the stations of a file, one a line. False, said, at the first line that is none. */
bool read_stations(const std::string &path, std::vector<reauth_sta> *stations);

#endif
