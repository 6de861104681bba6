// What must become of an answer, worked out from its bytes and where they are cut, independently of
// the reader under test.
#ifndef PELKIN_FUZZ_ANSWER_MODEL_H
#define PELKIN_FUZZ_ANSWER_MODEL_H

#include <string_view>

#include "fuzz/scripted_server.h"

struct model_answer {
    bool is_answer;        // something arrived
    bool is_cut_off;       // the head could be: there is a blank line
    std::string_view body; // of the block // or the whole answer, when it has no body
    bool is_clean;         // it ended at its announced length
    bool depends_on_cut;   // its announced length may: the key or its number lies behind the head
};

// For a buffer of `size` bytes.
model_answer model_answer_of(const script_block *block, size_t size);

#endif
