// A server made of a script, in place of sockets and of the TLS library: what http/exchange calls
// is wrapped at link time and answered from here. One block of the script belongs to every attempt
// at a request, whatever becomes of it; without a block the server does not answer.
#ifndef PELKIN_FUZZ_SCRIPTED_SERVER_H
#define PELKIN_FUZZ_SCRIPTED_SERVER_H

#include <openssl/ssl.h>
#include <stdint.h>
#include <string>
#include <vector>

enum before_request {
    BEFORE_QUIET,
    BEFORE_INTERRUPTED, // the first look is, the second finds it quiet
    BEFORE_STRAY_BYTE,  // something waits that was not asked for
    BEFORE_CLOSED,
    BEFORE_SILENT, // no room to write
    BEFORE_WRITE_FAILS,
    BEFORE_COUNT,
};

enum before_piece {
    PIECE_AT_ONCE,
    PIECE_LATE_READABLE, // a read comes too early
    PIECE_LATE_WRITABLE, // the same; TLS must write first
    PIECE_COUNT,
};

enum answer_end {
    END_CLOSED,
    END_BROKEN,
    END_SILENT,
    END_WAIT_FAILS,
    END_COUNT,
};

enum reconnection {
    RECONNECTION_WORKS,
    RECONNECTION_NO_SOCKET,
    RECONNECTION_REFUSED,
    RECONNECTION_COUNT,
};

// Bytes that are read at once, if the buffer has the room.
struct piece {
    size_t length;
    enum before_piece before;
    bool comes_with_previous; // TLS: taken off the socket together with the piece before
};

struct script_block {
    enum reconnection reconnection; // how the connection comes about, if a new one is needed
    enum before_request before;
    std::string answer;
    std::vector<piece> pieces; // of the answer; their lengths are above 0 and sum up to its own
    enum answer_end end;
};

// Starts a script. Without a connection, which server_open() makes; it returns the socket.
void server_start(const std::vector<script_block> *script);
int32_t server_open(void);
bool server_has_more(void); // whether a block of the script is left

// Counts the attempts of the exchange that begins.
void server_begin_exchange(void);
int server_attempts(void);
// The block whose answer the exchange has read; null when no request arrived.
const script_block *server_answered(void);

bool server_refused_reconnection(void);
// Whether the connection is open for another request.
bool server_is_open(void);

// A TLS object that only the wrapped functions may touch.
SSL *server_tls(void);

#endif
