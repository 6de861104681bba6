/*
 * Reading the API's answers step by step: each step takes the place where the last one ended and
 * returns where it ends itself, or null when the text is something else; a null place stays null.
 * All texts are NUL-terminated. Any thread.
 */
#ifndef PELKIN_WECHAT_ANSWER_TEXT_H
#define PELKIN_WECHAT_ANSWER_TEXT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Past `literal`, which must stand at `at`. */
const char *wechat_pass_literal(const char *at, const char *literal);

/* To the next double quote, at least one character on. */
const char *wechat_pass_to_quote(const char *at);

/*
 * Past a decimal number, with white space and a sign before it. A number beyond the range of
 * `number` is stored as that end of the range.
 */
const char *wechat_read_number(const char *at, int32_t *number);

/*
 * Past at least one character and at most `size` - 1 of them, up to the next double quote, which
 * are stored NUL-terminated.
 */
const char *wechat_read_text(const char *at, char *text, size_t size);

#ifdef __cplusplus
}
#endif
#endif
