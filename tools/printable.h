/* Text from outside made safe for a terminal. */
#ifndef PELKIN_TOOLS_PRINTABLE_H
#define PELKIN_TOOLS_PRINTABLE_H

#include <string>
#include <string_view>

/*
 * `text` without what a terminal could take for a command: control characters other than line break
 * and tab (C0, DEL, C1), and bytes that are no UTF-8 (RFC 3629), which some terminals read as C1.
 */
std::string printable(std::string_view text);

/* The same as a JSON string, in its quotation marks; line breaks and tabs are escaped. */
std::string json_text(std::string_view text);

#endif
