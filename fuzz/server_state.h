// Where the scripted server stands in its script, for the functions that answer in its name: of the
// sockets (server_sockets.cpp) and of the TLS library (server_tls.cpp).
#ifndef PELKIN_FUZZ_SERVER_STATE_H
#define PELKIN_FUZZ_SERVER_STATE_H

#include "fuzz/scripted_server.h"

// No descriptor of the process's own has such a number.
static const int SERVER_FIRST_SOCK = 1 << 20;

struct server_state {
    const std::vector<script_block> *script;
    size_t next; // block of the next attempt
    const script_block *answered;
    int attempts;
    int reconnections;
    bool is_refused;

    int sock;
    bool is_connected;
    const script_block *block; // null: nothing has been asked over this connection yet
    size_t piece;              // the one that is being read
    size_t piece_done;         // bytes of it
    size_t done;               // bytes of the answer
    bool was_late;             // the piece's early read has happened
    size_t library_pieces;     // TLS: pieces from `piece` on that are off the socket
    bool must_wait_writable;
    bool was_interrupted;
    int tls_error; // of the latest call
};

extern struct server_state server;

// The block of the attempt that comes next.
const script_block *server_next_block(void);
void server_connect_anew(void);
// Begins an attempt: whether the connection, as it stands, can carry it.
enum before_request server_look_before_request(void);
// The attempt's request arrives; false when it does not.
bool server_take_request(void);
// Whether something is left to read of the answer.
bool server_has_bytes(void);
// Whether the read of the piece comes too early, which it does once.
enum before_piece server_lateness_of_piece(void);
// Reads at most `room` bytes of the piece, which is there.
int server_read_piece(void *to, size_t room);

#endif
