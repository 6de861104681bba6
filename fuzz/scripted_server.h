// A server made of a script, in place of sockets and of the TLS library: what http/exchange calls
// is wrapped at link time and answered from here. One block of the script belongs to every attempt
// at a request, whatever becomes of it; without a block the server does not answer.
#ifndef PELKIN_FUZZ_SCRIPTED_SERVER_H
#define PELKIN_FUZZ_SCRIPTED_SERVER_H

#include <openssl/ssl.h>
#include <stdint.h>
#include <string>
#include <string_view>
#include <vector>

enum before_request {
    BEFORE_QUIET,
    BEFORE_STRAY_BYTE, // something waits that was not asked for
    BEFORE_CLOSED,
    BEFORE_SILENT, // no room to write
    BEFORE_WRITE_FAILS,
    BEFORE_COUNT,
};
enum answer_end { END_CLOSED, END_BROKEN, END_SILENT, END_WAIT_FAILS, END_COUNT };

// Bytes that are read at once, if the buffer has the room.
struct piece {
    size_t length;
    bool is_late; // a read comes too early
};

struct script_block {
    bool refuses_connection; // if a new one is needed
    enum before_request before;
    std::string answer;
    std::vector<piece> pieces; // of the answer; their lengths are above 0 and sum up to its own
    enum answer_end end;
};

// Where the server stands in its script.
struct server_state {
    const std::vector<script_block> *script;
    size_t next;                  // block of the next attempt
    const script_block *answered; // whose answer the exchange has read; null: none arrived
    int attempts;                 // of the exchange
    bool is_refused;              // a reconnection was
    int sock;
    bool is_connected;
    const script_block *block; // null: nothing has been asked over this connection yet
    size_t piece;              // the one that is being read
    size_t piece_done;         // bytes of it
    size_t done;               // bytes of the answer
    bool was_late;             // the piece's early read has happened
    bool has_glanced;          // TLS: what the look at the socket saw is the library's to tell
    enum before_request before;
    int tls_error; // of the latest call
};
extern struct server_state server;

// Connects; returns the socket, a number that no descriptor of the process's own has.
int32_t server_open(void);
bool server_has_more(void); // whether a block of the script is left

// What must become of an answer read into `size` bytes, worked out from its bytes and where they
// are cut, independently of the reader under test.
struct model_answer {
    bool is_answer;        // something arrived
    bool is_cut_off;       // the head could be: there is a blank line
    std::string_view body; // of the block; or the whole answer, when it has no body
    bool is_clean;         // it ended at its announced length
    bool depends_on_cut;   // its announced length may: the key or its number lies behind the head
};
model_answer model_answer_of(const script_block *block, size_t size);

#endif
