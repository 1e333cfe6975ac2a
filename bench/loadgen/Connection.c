#define _GNU_SOURCE
#include "Connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum
{
    CONNECT_RETRY_MS = 5000
};

uint64_t monotonic_ns(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000000U + (uint64_t)now.tv_nsec;
}

void fail(Run* run, const char* format, ...)
{
    if (run->failed) {
        return; /* the first fault is the one worth reading */
    }
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(run->message, run->message_size, format, arguments);
    va_end(arguments);
    run->failed = true;
}

const char* name_of(const Connection* connection)
{
    return connection->role == ROLE_PUBLISHER ? "publisher" : "subscriber";
}

static void watch_output(Run* run, Connection* connection, bool wanted)
{
    if (connection->watching_output == wanted) {
        return;
    }
    struct epoll_event event = {.events = EPOLLIN | (wanted ? EPOLLOUT : 0), .data.ptr = connection};
    epoll_ctl(run->epoll, EPOLL_CTL_MOD, connection->fd, &event);
    connection->watching_output = wanted;
}

void flush(Run* run, Connection* connection)
{
    size_t written = 0;
    while (written < connection->out.length) {
        ssize_t result = write(connection->fd, connection->out.data + written, connection->out.length - written);
        if (result < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                fail(run, "%s %d: write failed: %s", name_of(connection), connection->index, strerror(errno));
            }
            if (errno != EINTR) {
                break;
            }
            continue;
        }
        written += (size_t)result;
    }
    buffer_consume(&connection->out, written);
    watch_output(run, connection, connection->out.length > 0);
}

static int connect_loopback(int port)
{
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)port)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    /* The broker may still be starting: a refused connection is tried again for a while. */
    for (int waited = 0;; waited += 20) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || connect(fd, (struct sockaddr*)&address, sizeof address) == 0) {
            return fd;
        }
        int error = errno;
        close(fd);
        if (error != ECONNREFUSED || waited >= CONNECT_RETRY_MS) {
            errno = error;
            return -1;
        }
        usleep(20 * 1000);
    }
}

void open_connection(Run* run, Connection* connection)
{
    connection->fd = connect_loopback(run->options->port);
    if (connection->fd < 0) {
        fail(run, "cannot connect to 127.0.0.1:%d: %s", run->options->port, strerror(errno));
        return;
    }
    int on = 1;
    setsockopt(connection->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (fcntl(connection->fd, F_SETFL, O_NONBLOCK) != 0) {
        fail(run, "cannot make a socket non-blocking: %s", strerror(errno));
        return;
    }
    struct epoll_event event = {.events = EPOLLIN, .data.ptr = connection};
    epoll_ctl(run->epoll, EPOLL_CTL_ADD, connection->fd, &event);
    /* Names of this process alone: what a broker still carries from an earlier run never reaches
     * this one's subscribers. */
    char client_id[40];
    snprintf(client_id, sizeof client_id, "loadgen-%d-%c%d", (int)getpid(),
             connection->role == ROLE_PUBLISHER ? 'p' : 's', connection->index);
    snprintf(connection->topic, sizeof connection->topic, "lg/%d/%d", (int)getpid(), connection->index);
    put_connect(&connection->out, client_id);
    flush(run, connection);
}

void close_connection(Connection* connection)
{
    if (connection->fd >= 0) {
        put_disconnect(&connection->out);
        (void)!write(connection->fd, connection->out.data, connection->out.length);
        close(connection->fd);
    }
    buffer_free(&connection->in);
    buffer_free(&connection->out);
    free(connection->expected);
}
