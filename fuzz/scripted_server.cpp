#include "fuzz/scripted_server.h"
#include "fuzz/server_state.h"

#include <algorithm>
#include <string.h>

#include "fuzz/harness.h"

struct server_state server;

static const script_block quiet_block = {RECONNECTION_REFUSED, BEFORE_CLOSED, "", {}, END_CLOSED};

void server_connect_anew(void)
{
    server.is_connected = true;
    server.block = nullptr;
    server.library_pieces = 0;
    server.must_wait_writable = false;
}

void server_start(const std::vector<script_block> *script)
{
    server = {};
    server.script = script;
}

int32_t server_open(void)
{
    server.sock = SERVER_FIRST_SOCK;
    server_connect_anew();
    return server.sock;
}

bool server_has_more(void)
{
    return server.next < server.script->size();
}

const script_block *server_next_block(void)
{
    return server_has_more() ? &(*server.script)[server.next] : &quiet_block;
}

void server_begin_exchange(void)
{
    server.attempts = 0;
    server.reconnections = 0;
    server.is_refused = false;
    server.answered = nullptr;
}

int server_attempts(void)
{
    return server.attempts;
}

const script_block *server_answered(void)
{
    return server.answered;
}

bool server_refused_reconnection(void)
{
    return server.is_refused;
}

bool server_is_open(void)
{
    return server.is_connected;
}

bool server_has_bytes(void)
{
    return server.block != nullptr && server.piece < server.block->pieces.size();
}

enum before_request server_look_before_request(void)
{
    server.attempts++;
    const enum before_request before = server_next_block()->before;
    if (!server.is_connected || (server.block != nullptr && server.block->end != END_SILENT &&
                                 server.block->end != END_WAIT_FAILS)) {
        server.next++;
        return BEFORE_CLOSED;
    }
    if (server_has_bytes()) {
        server.next++;
        return BEFORE_STRAY_BYTE;
    }
    if (before != BEFORE_QUIET && before != BEFORE_INTERRUPTED && before != BEFORE_WRITE_FAILS) {
        server.next++;
    }
    return before;
}

bool server_take_request(void)
{
    const script_block *block = server_next_block();
    server.next++;
    if (block->before == BEFORE_WRITE_FAILS) {
        return false;
    }
    server.block = block;
    server.answered = block;
    server.piece = 0;
    server.piece_done = 0;
    server.done = 0;
    server.was_late = false;
    server.library_pieces = 0;
    return true;
}

int server_read_piece(void *to, size_t room)
{
    const piece &piece = server.block->pieces[server.piece];
    const size_t got = std::min(room, piece.length - server.piece_done);
    memcpy(to, server.block->answer.data() + server.done, got);
    server.done += got;
    server.piece_done += got;
    if (server.piece_done == piece.length) {
        server.piece++;
        server.piece_done = 0;
        server.was_late = false;
        server.library_pieces -= server.library_pieces > 0 ? 1 : 0;
    }
    return (int)got;
}

enum before_piece server_lateness_of_piece(void)
{
    const enum before_piece before = server.block->pieces[server.piece].before;
    if (server.was_late || server.piece_done > 0) {
        return PIECE_AT_ONCE;
    }
    server.was_late = true;
    return before;
}
