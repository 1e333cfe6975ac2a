/* The load generator's connections and the run they belong to: opening them, writing what they
 * hold, and the first fault a run meets. */
#ifndef LOADGEN_CONNECTION_H
#define LOADGEN_CONNECTION_H

#include "Loadgen.h"
#include "Wire.h"

#include <stdbool.h>
#include <stdint.h>

typedef enum
{
    ROLE_SUBSCRIBER,
    ROLE_PUBLISHER
} Role;
typedef enum
{
    AWAIT_CONNACK,
    AWAIT_SUBACK,
    READY
} Phase;

typedef struct
{
    int fd;
    Role role;
    int index;
    Phase phase;
    Buffer in;
    Buffer out;
    bool watching_output;
    char topic[32];
    uint32_t sent;      /* publisher: messages written */
    uint32_t completed; /* publisher: PUBACKs or PUBCOMPs received */
    uint32_t* expected; /* subscriber: the next sequence from each publisher */
} Connection;

typedef struct
{
    const Options* options;
    int epoll;
    Connection* connections; /* the subscribers, then the publishers */
    int total;
    int ready;
    uint64_t deliveries;
    uint64_t completions;
    uint64_t now_ns;
    Latency* latency;
    char* message;
    size_t message_size;
    bool failed;
} Run;

uint64_t monotonic_ns(void);
/* Records the run's first fault; later ones follow from it and are not worth reading. */
void fail(Run* run, const char* format, ...) __attribute__((format(printf, 2, 3)));
const char* name_of(const Connection* connection);
/* Writes what the connection holds, as far as the socket takes it, and watches for room if some
 * is left. */
void flush(Run* run, Connection* connection);
/* Connects to the broker and sends CONNECT. */
void open_connection(Run* run, Connection* connection);
/* Sends DISCONNECT, closes and frees. */
void close_connection(Connection* connection);

#endif
