/* The physical reference for one large file: HTTP/1.1 GET of http://HOST:PORT/PATH into FILE
 * over a plain socket, moving the body with read/write of 2 MiB. No parsing beyond the status
 * and the header's end; nginx on loopback answers 200 with the whole body.
 * Usage: fetch HOST PORT PATH FILE */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define BUFFER_SIZE (2 * 1024 * 1024)

static int fail(const char *what)
{
    perror(what);
    return 1;
}

int main(int argc, char **argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: fetch HOST PORT PATH FILE\n");
        return 64;
    }
    struct sockaddr_in address = { .sin_family = AF_INET, .sin_port = htons(atoi(argv[2])) };
    if (inet_pton(AF_INET, argv[1], &address.sin_addr) != 1)
        return fail("address");
    int sock = socket(AF_INET, SOCK_STREAM, 0);
    if (sock < 0 || connect(sock, (struct sockaddr *)&address, sizeof address) < 0)
        return fail("connect");
    char *buffer = malloc(BUFFER_SIZE);
    int n = snprintf(buffer, BUFFER_SIZE, "GET %s HTTP/1.1\r\nHost: %s\r\nConnection: close\r\n\r\n",
                     argv[3], argv[1]);
    if (write(sock, buffer, n) != n)
        return fail("request");
    int out = open(argv[4], O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0)
        return fail(argv[4]);

    size_t have = 0; /* header bytes until the blank line is found */
    char *body = NULL;
    ssize_t got;
    while (!body && (got = read(sock, buffer + have, BUFFER_SIZE - 1 - have)) > 0) {
        have += got;
        buffer[have] = '\0';
        body = strstr(buffer, "\r\n\r\n");
    }
    if (!body || strncmp(buffer + 8, " 200", 4) != 0) {
        fprintf(stderr, "no 200 answer\n");
        return 1;
    }
    body += 4;
    size_t first = have - (size_t)(body - buffer);
    if (first && write(out, body, first) != (ssize_t)first)
        return fail("write");
    while ((got = read(sock, buffer, BUFFER_SIZE)) > 0)
        if (write(out, buffer, got) != got)
            return fail("write");
    if (got < 0)
        return fail("read");
    return close(out) == 0 ? 0 : fail("close");
}
