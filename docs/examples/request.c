/* request URL: asks pelkin for a URL (a GET) and prints the answer's body. */
#define _POSIX_C_SOURCE 200809L
#include <pelkin/pelkin_client.h>
#include <stdio.h>

int main(int argc, char **argv)
{
    static char body[PELKIN_MSG_MAX];
    const long length = pelkin_client_get(argc > 1 ? argv[1] : "", NULL, body, sizeof body, 10000);
    if (length < 0) {
        fprintf(stderr, "request: %s\n", pelkin_client_text(length));
        return 1;
    }
    return fwrite(body, 1, (size_t)length, stdout) == (size_t)length ? 0 : 1;
}
