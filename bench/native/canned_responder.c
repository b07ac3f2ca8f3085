/* canned_responder: the benchmark's canned loopback responder as a native
 * Linux process, for the connection-reuse figures.
 *
 * Wine's WinHTTP writes a request's headers and body in two writes on a
 * socket without TCP_NODELAY, so the body waits until the headers are
 * acknowledged; a Linux peer delays that ACK by up to 40 ms because it has
 * nothing to send yet. A responder inside a Windows (Wine) process cannot set
 * TCP_QUICKACK, so with connection reuse every exchange paid that stall.
 * This one sets TCP_NODELAY on every connection and TCP_QUICKACK after every
 * read, and otherwise behaves as bench/CannedResponder.cpp: one poll-loop
 * thread, requests parsed by Content-Length, the answer chosen by path and
 * body (first match in order; an empty "contains" matches any body on that
 * path; else 404), sent in one write, and the last request carrying each
 * capture marker kept for the benchmark's byte-for-byte floor check.
 *
 * Usage: canned_responder --port N [--parent PID]
 * Listens on 127.0.0.1:N, prints "listening on N" when ready, and exits when
 * the parent process is gone. The benchmark hands the answers over on the
 * same port under the reserved path prefix "/.qvbench/" (never a service
 * path):
 *   POST /.qvbench/answers   body: records (path, contains, answer)
 *   POST /.qvbench/markers   body: records (marker)
 *   POST /.qvbench/captured  body: a marker; answer: records (path, content
 *                            type, head, body) of the last request carrying
 *                            it, or nothing when none came
 * A record field is "<decimal length>\n" followed by that many bytes.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#define CONTROL_PREFIX "/.qvbench/"
#define MAX_CONNECTIONS 256

struct buf {
    char *data;
    size_t size;
    size_t capacity;
};

static void buf_append(struct buf *b, const char *data, size_t size) {
    if (b->size + size + 1 > b->capacity) {
        size_t capacity = b->capacity ? b->capacity : 1024;
        while (capacity < b->size + size + 1) capacity *= 2;
        char *grown = realloc(b->data, capacity);
        if (!grown) {
            perror("canned_responder: realloc");
            exit(1);
        }
        b->data = grown;
        b->capacity = capacity;
    }
    memcpy(b->data + b->size, data, size);
    b->size += size;
    b->data[b->size] = '\0';
}

static void buf_consume(struct buf *b, size_t size) {
    memmove(b->data, b->data + size, b->size - size);
    b->size -= size;
    if (b->data) b->data[b->size] = '\0';
}

static void buf_set(struct buf *b, const char *data, size_t size) {
    b->size = 0;
    buf_append(b, data, size);
}

static void buf_free(struct buf *b) {
    free(b->data);
    b->data = NULL;
    b->size = b->capacity = 0;
}

static void buf_field(struct buf *b, const char *data, size_t size) {
    char length[32];
    int n = snprintf(length, sizeof(length), "%zu\n", size);
    buf_append(b, length, (size_t)n);
    buf_append(b, data, size);
}

/* Reads the next record field from [*at, end); 0 when there is none. */
static int next_field(const char **at, const char *end, const char **data, size_t *size) {
    const char *newline = memchr(*at, '\n', (size_t)(end - *at));
    if (!newline) return 0;
    char *stop = NULL;
    unsigned long length = strtoul(*at, &stop, 10);
    if (stop != newline || length > (size_t)(end - newline - 1)) return 0;
    *data = newline + 1;
    *size = length;
    *at = newline + 1 + length;
    return 1;
}

static const char *memfind(const char *hay, size_t hay_size, const char *needle, size_t needle_size) {
    if (needle_size == 0) return hay;
    if (needle_size > hay_size) return NULL;
    return memmem(hay, hay_size, needle, needle_size);
}

struct answer {
    struct buf path;
    struct buf contains;
    struct buf reply; /* the full HTTP reply, prebuilt */
};

struct capture {
    struct buf marker;
    int present;
    struct buf path, content_type, head, body;
};

static struct answer *answers;
static size_t answer_count;
static struct capture *captures;
static size_t capture_count;

static const char not_found[] = "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";

static void set_answers(const char *data, size_t size) {
    for (size_t i = 0; i < answer_count; ++i) {
        buf_free(&answers[i].path);
        buf_free(&answers[i].contains);
        buf_free(&answers[i].reply);
    }
    free(answers);
    answers = NULL;
    answer_count = 0;
    const char *at = data, *end = data + size;
    const char *path, *contains, *text;
    size_t path_size, contains_size, text_size;
    while (next_field(&at, end, &path, &path_size) && next_field(&at, end, &contains, &contains_size) &&
           next_field(&at, end, &text, &text_size)) {
        answers = realloc(answers, (answer_count + 1) * sizeof(*answers));
        if (!answers) exit(1);
        struct answer *a = &answers[answer_count++];
        memset(a, 0, sizeof(*a));
        buf_set(&a->path, path, path_size);
        buf_set(&a->contains, contains, contains_size);
        char head[160];
        int n = snprintf(head, sizeof(head),
                         "HTTP/1.1 200 OK\r\nContent-Type: application/soap+xml; charset=utf-8\r\n"
                         "Content-Length: %zu\r\n\r\n",
                         text_size);
        buf_append(&a->reply, head, (size_t)n);
        buf_append(&a->reply, text, text_size);
    }
}

static void set_markers(const char *data, size_t size) {
    for (size_t i = 0; i < capture_count; ++i) {
        buf_free(&captures[i].marker);
        buf_free(&captures[i].path);
        buf_free(&captures[i].content_type);
        buf_free(&captures[i].head);
        buf_free(&captures[i].body);
    }
    free(captures);
    captures = NULL;
    capture_count = 0;
    const char *at = data, *end = data + size, *marker;
    size_t marker_size;
    while (next_field(&at, end, &marker, &marker_size)) {
        captures = realloc(captures, (capture_count + 1) * sizeof(*captures));
        if (!captures) exit(1);
        struct capture *c = &captures[capture_count++];
        memset(c, 0, sizeof(*c));
        buf_set(&c->marker, marker, marker_size);
    }
}

/* The same choice as CannedResponder::Match: the first answer on the path
 * whose text is in the body, an empty text matching any body. */
static const struct answer *match(const char *path, size_t path_size, const char *body, size_t body_size) {
    for (size_t i = 0; i < answer_count; ++i) {
        const struct answer *a = &answers[i];
        if (a->path.size == path_size && memcmp(a->path.data, path, path_size) == 0 &&
            (a->contains.size == 0 || memfind(body, body_size, a->contains.data, a->contains.size)))
            return a;
    }
    return NULL;
}

static int send_all(int fd, const char *data, size_t size) {
    while (size > 0) {
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return 0;
        data += n;
        size -= (size_t)n;
    }
    return 1;
}

static int send_control(int fd, const char *status, const char *body, size_t body_size) {
    char head[160];
    int n = snprintf(head, sizeof(head),
                     "HTTP/1.1 %s\r\nContent-Type: application/octet-stream\r\nContent-Length: %zu\r\n\r\n", status,
                     body_size);
    struct buf reply = {0};
    buf_append(&reply, head, (size_t)n);
    if (body_size) buf_append(&reply, body, body_size);
    int ok = send_all(fd, reply.data, reply.size);
    buf_free(&reply);
    return ok;
}

static int serve_control(int fd, const char *path, size_t path_size, const char *body, size_t body_size) {
    const size_t prefix = strlen(CONTROL_PREFIX);
    const char *name = path + prefix;
    size_t name_size = path_size - prefix;
    if (name_size == 7 && memcmp(name, "answers", 7) == 0) {
        set_answers(body, body_size);
        return send_control(fd, "200 OK", NULL, 0);
    }
    if (name_size == 7 && memcmp(name, "markers", 7) == 0) {
        set_markers(body, body_size);
        return send_control(fd, "200 OK", NULL, 0);
    }
    if (name_size == 8 && memcmp(name, "captured", 8) == 0) {
        for (size_t i = 0; i < capture_count; ++i) {
            struct capture *c = &captures[i];
            if (c->marker.size != body_size || memcmp(c->marker.data, body, body_size) != 0) continue;
            struct buf out = {0};
            if (c->present) {
                buf_field(&out, c->path.data, c->path.size);
                buf_field(&out, c->content_type.data, c->content_type.size);
                buf_field(&out, c->head.data, c->head.size);
                buf_field(&out, c->body.data, c->body.size);
            }
            int ok = send_control(fd, "200 OK", out.data, out.size);
            buf_free(&out);
            return ok;
        }
    }
    return send_all(fd, not_found, sizeof(not_found) - 1);
}

/* Answers every complete request in the buffer; 0 when the connection is to
 * be closed. The parsing follows CannedResponder::ServeBuffered. */
static int serve_buffered(int fd, struct buf *buffer) {
    for (;;) {
        if (buffer->size == 0) return 1;
        const char *data = buffer->data;
        const char *header_end = memfind(data, buffer->size, "\r\n\r\n", 4);
        if (!header_end) return 1;
        size_t head_size = (size_t)(header_end - data);
        const char *first_space = memchr(data, ' ', head_size);
        if (!first_space) return 0;
        const char *second_space = memchr(first_space + 1, ' ', head_size - (size_t)(first_space + 1 - data));
        if (!second_space) return 0;
        const char *path = first_space + 1;
        size_t path_size = (size_t)(second_space - path);
        size_t body_size = 0;
        const char *content_type = "";
        size_t content_type_size = 0;
        const char *line = memfind(data, head_size, "\r\n", 2);
        while (line && line < data + head_size) {
            line += 2;
            const char *line_end = memfind(line, head_size - (size_t)(line - data), "\r\n", 2);
            size_t line_size = (size_t)((line_end ? line_end : data + head_size) - line);
            const char *colon = memchr(line, ':', line_size);
            if (colon) {
                size_t name_size = (size_t)(colon - line);
                const char *value = colon + 1;
                size_t value_size = line_size - name_size - 1;
                while (value_size > 0 && *value == ' ') {
                    ++value;
                    --value_size;
                }
                if (name_size == 14 && strncasecmp(line, "Content-Length", 14) == 0) {
                    char number[32] = {0};
                    memcpy(number, value, value_size < sizeof(number) - 1 ? value_size : sizeof(number) - 1);
                    body_size = strtoul(number, NULL, 10);
                }
                if (name_size == 12 && strncasecmp(line, "Content-Type", 12) == 0) {
                    content_type = value;
                    content_type_size = value_size;
                }
            }
            line = line_end;
        }
        size_t total = head_size + 4 + body_size;
        if (buffer->size < total) return 1; /* the rest of the body is still on its way */
        const char *body = header_end + 4;
        int ok;
        if (path_size >= strlen(CONTROL_PREFIX) && memcmp(path, CONTROL_PREFIX, strlen(CONTROL_PREFIX)) == 0) {
            ok = serve_control(fd, path, path_size, body, body_size);
        } else {
            for (size_t i = 0; i < capture_count; ++i) {
                struct capture *c = &captures[i];
                if (!memfind(body, body_size, c->marker.data, c->marker.size)) continue;
                c->present = 1;
                buf_set(&c->path, path, path_size);
                buf_set(&c->content_type, content_type, content_type_size);
                buf_set(&c->head, data, head_size);
                buf_set(&c->body, body, body_size);
            }
            const struct answer *a = match(path, path_size, body, body_size);
            ok = a ? send_all(fd, a->reply.data, a->reply.size) : send_all(fd, not_found, sizeof(not_found) - 1);
        }
        buf_consume(buffer, total);
        if (!ok) return 0;
    }
}

/* Acknowledges at once whatever arrives next: the kernel leaves quick-ACK
 * mode on its own, so this is renewed after every read. */
static void quick_ack(int fd) {
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
}

int main(int argc, char **argv) {
    int port = -1;
    pid_t parent = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0) port = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--parent") == 0) parent = (pid_t)atoi(argv[i + 1]);
    }
    if (port < 0 || port > 65535) {
        fprintf(stderr, "usage: canned_responder --port N [--parent PID]\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof(addr));
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons((unsigned short)port);
    if (listener < 0 || bind(listener, (struct sockaddr *)&addr, sizeof(addr)) != 0 ||
        listen(listener, SOMAXCONN) != 0) {
        perror("canned_responder: listen");
        return 1;
    }
    socklen_t length = sizeof(addr);
    getsockname(listener, (struct sockaddr *)&addr, &length);
    printf("listening on %d\n", ntohs(addr.sin_port));
    fflush(stdout);

    int fds[MAX_CONNECTIONS];
    struct buf buffers[MAX_CONNECTIONS];
    size_t count = 0;
    struct pollfd polls[MAX_CONNECTIONS + 1];
    char chunk[16384];
    for (;;) {
        if (parent && getppid() != parent) break;
        polls[0].fd = listener;
        polls[0].events = count < MAX_CONNECTIONS ? POLLIN : 0; /* full: leave new ones queued */
        polls[0].revents = 0;
        for (size_t i = 0; i < count; ++i) {
            polls[i + 1].fd = fds[i];
            polls[i + 1].events = POLLIN;
            polls[i + 1].revents = 0;
        }
        int ready = poll(polls, count + 1, 1000);
        if (ready < 0 && errno != EINTR) {
            perror("canned_responder: poll");
            return 1;
        }
        if (ready <= 0) continue;
        /* Connections first (their indexes match polls[1..]), then new ones. */
        size_t kept = 0;
        for (size_t i = 0; i < count; ++i) {
            int open = 1;
            if (polls[i + 1].revents & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t n = recv(fds[i], chunk, sizeof(chunk), 0);
                if (n <= 0) {
                    open = n < 0 && errno == EINTR;
                } else {
                    quick_ack(fds[i]);
                    buf_append(&buffers[i], chunk, (size_t)n);
                    open = serve_buffered(fds[i], &buffers[i]);
                }
            }
            if (open) {
                fds[kept] = fds[i];
                buffers[kept] = buffers[i];
                ++kept;
            } else {
                close(fds[i]);
                buf_free(&buffers[i]);
            }
        }
        count = kept;
        if ((polls[0].revents & POLLIN) && count < MAX_CONNECTIONS) {
            int client = accept(listener, NULL, NULL);
            if (client >= 0) {
                setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
                quick_ack(client);
                fds[count] = client;
                memset(&buffers[count], 0, sizeof(buffers[count]));
                ++count;
            }
        }
    }
    for (size_t i = 0; i < count; ++i) close(fds[i]);
    close(listener);
    return 0;
}
