#include "Loadgen.h"

#include "Connection.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

/* A publisher stops filling its buffer here and lets the socket drain: the window, not this, is
 * what bounds the messages in flight. */
enum
{
    FILL_LIMIT = 64 * 1024,
    READ_SIZE = 64 * 1024
};

static double cpu_seconds(void)
{
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

/* The fewest messages of this publisher that any subscriber has received so far. */
static uint32_t least_received(const Run* run, int publisher)
{
    uint32_t least = UINT32_MAX;
    for (int index = 0; index < run->options->subscribers; index++) {
        uint32_t received = run->connections[index].expected[publisher];
        least = received < least ? received : least;
    }
    return least;
}

/* A message is in flight from its publication until every subscriber has it and, at QoS 1 and 2,
 * the broker has completed its flow with the publisher. QoS 0 has no acknowledgement, so only the
 * subscribers' side (seen directly, in this same process) holds its window. */
static bool window_open(const Run* run, const Connection* publisher)
{
    const Options* options = run->options;
    uint32_t window = (uint32_t)options->window;
    return publisher->sent < options->count && (options->qos == 0 || publisher->sent - publisher->completed < window) &&
           publisher->sent - least_received(run, publisher->index) < window;
}

/* The sequence number the index-th message carries: its index, except for the one message a
 * deliberate fault drops or repeats. */
static uint32_t sequence_for(const Options* options, uint32_t index)
{
    if (index != options->count / 2 || options->fault == FAULT_NONE) {
        return index;
    }
    return options->fault == FAULT_DROP ? index + 1 : index - 1;
}

static void fill(Run* run, Connection* publisher)
{
    const Options* options = run->options;
    while (window_open(run, publisher) && publisher->out.length < FILL_LIMIT) {
        Stamp stamp = {(uint32_t)publisher->index, sequence_for(options, publisher->sent), monotonic_ns()};
        /* Packet ids 1..65535 in turn: the window keeps them unique among those in flight. */
        uint16_t packet_id = (uint16_t)(publisher->sent % 65535 + 1);
        put_publish(&publisher->out, publisher->topic, options->qos, packet_id, &stamp, options->size);
        publisher->sent++;
    }
    flush(run, publisher);
}

static void on_handshake(Run* run, Connection* connection, const Packet* packet)
{
    if (connection->phase == AWAIT_CONNACK && packet->type == PACKET_CONNACK) {
        int reason = packet->body_length >= 2 ? packet->body[1] : 0xFF;
        if (reason != 0) {
            fail(run, "%s %d: CONNACK refused with reason 0x%02x", name_of(connection), connection->index, reason);
            return;
        }
        if (connection->role == ROLE_SUBSCRIBER) {
            char filter[24];
            snprintf(filter, sizeof filter, "lg/%d/#", (int)getpid());
            put_subscribe(&connection->out, filter, run->options->qos);
            connection->phase = AWAIT_SUBACK;
            return;
        }
    } else if (connection->phase == AWAIT_SUBACK && packet->type == PACKET_SUBACK) {
        int granted = packet->body_length ? packet->body[packet->body_length - 1] : 0xFF;
        if (granted != run->options->qos) {
            fail(run, "subscriber %d: SUBACK with reason 0x%02x, not QoS %d", connection->index, granted,
                 run->options->qos);
            return;
        }
    } else {
        fail(run, "%s %d: packet type %d during the handshake", name_of(connection), connection->index, packet->type);
        return;
    }
    connection->phase = READY;
    run->ready++;
}

static void on_arrival(Run* run, Connection* subscriber, const Packet* packet)
{
    const Options* options = run->options;
    Delivery delivery;
    if (!read_publish(packet, &delivery) || delivery.stamp.publisher >= (uint32_t)options->publishers ||
        delivery.payload_size != options->size || delivery.qos != options->qos) {
        fail(run, "subscriber %d: a PUBLISH that the generator did not send", subscriber->index);
        return;
    }
    if (!check_arrival(subscriber->index, delivery.stamp.publisher, delivery.stamp.sequence,
                       &subscriber->expected[delivery.stamp.publisher], run->message, run->message_size)) {
        run->failed = true;
        return;
    }
    latency_add(run->latency, run->now_ns - delivery.stamp.sent_ns);
    run->deliveries++;
    if (delivery.qos) {
        put_ack(&subscriber->out, delivery.qos == 1 ? PACKET_PUBACK : PACKET_PUBREC, delivery.packet_id);
    }
}

static void on_packet(Run* run, Connection* connection, const Packet* packet)
{
    if (connection->phase != READY) {
        on_handshake(run, connection, packet);
        return;
    }
    uint16_t packet_id = 0;
    int reason = 0;
    bool subscriber = connection->role == ROLE_SUBSCRIBER;
    if (subscriber && packet->type == PACKET_PUBLISH) {
        on_arrival(run, connection, packet);
    } else if (packet->type == PACKET_DISCONNECT) {
        fail(run, "%s %d: DISCONNECT from the broker", name_of(connection), connection->index);
    } else if (!read_ack(packet, &packet_id, &reason) || reason >= 0x80) {
        fail(run, "%s %d: packet type %d, reason 0x%02x", name_of(connection), connection->index, packet->type, reason);
    } else if (subscriber && packet->type == PACKET_PUBREL) {
        put_ack(&connection->out, PACKET_PUBCOMP, packet_id);
    } else if (!subscriber && packet->type == PACKET_PUBREC) {
        put_ack(&connection->out, PACKET_PUBREL, packet_id);
    } else if (!subscriber && (packet->type == PACKET_PUBACK || packet->type == PACKET_PUBCOMP)) {
        connection->completed++;
        run->completions++;
    } else {
        fail(run, "%s %d: unexpected packet type %d", name_of(connection), connection->index, packet->type);
    }
}

static void on_readable(Run* run, Connection* connection)
{
    buffer_reserve(&connection->in, READ_SIZE);
    ssize_t count = read(connection->fd, connection->in.data + connection->in.length,
                         connection->in.capacity - connection->in.length);
    if (count <= 0) {
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            fail(run, "%s %d: the broker closed the connection", name_of(connection), connection->index);
        }
        return;
    }
    /* Everything in this read arrived by now: one clock reading serves all its messages. */
    run->now_ns = monotonic_ns();
    connection->in.length += (size_t)count;
    size_t parsed = 0;
    size_t needed = 0;
    Packet packet;
    int cut = 0;
    while (!run->failed && (cut = cut_packet(connection->in.data + parsed, connection->in.length - parsed,
                                             run->options->size + 1024, &packet, &needed)) > 0) {
        on_packet(run, connection, &packet);
        parsed += packet.total_length;
    }
    if (cut < 0) {
        fail(run, "%s %d: a malformed or oversized packet", name_of(connection), connection->index);
    }
    buffer_consume(&connection->in, parsed);
    buffer_reserve(&connection->in, needed > connection->in.length ? needed - connection->in.length : 0);
    flush(run, connection);
}

static bool finished(const Run* run)
{
    const Options* options = run->options;
    uint64_t messages = (uint64_t)options->publishers * options->count;
    return run->deliveries == messages * (uint64_t)options->subscribers &&
           (options->qos == 0 || run->completions == messages);
}

static void describe_timeout(Run* run)
{
    const Options* options = run->options;
    for (int index = 0; index < options->subscribers; index++) {
        for (int publisher = 0; publisher < options->publishers; publisher++) {
            uint32_t received = run->connections[index].expected[publisher];
            if (received < options->count) {
                fail(run,
                     "timed out after %d s: %d of %d connections ready; subscriber %d has %u of %u messages "
                     "from publisher %d",
                     options->timeout_seconds, run->ready, run->total, index, received, options->count, publisher);
                return;
            }
        }
    }
    fail(run, "timed out after %d s waiting for acknowledgements (%llu of %llu)", options->timeout_seconds,
         (unsigned long long)run->completions, (unsigned long long)options->publishers * options->count);
}

/* The epoll loop, until every message is through, a check fails or the time-out passes. Publishing
 * starts once every connection is through its handshake. */
static void serve(Run* run, Results* results)
{
    uint64_t deadline = monotonic_ns() + (uint64_t)run->options->timeout_seconds * 1000000000U;
    uint64_t started_ns = 0;
    double started_cpu = 0;
    struct epoll_event events[64];
    while (!run->failed && !(started_ns && finished(run))) {
        if (monotonic_ns() > deadline) {
            describe_timeout(run);
            return;
        }
        int count = epoll_wait(run->epoll, events, 64, 100);
        for (int index = 0; index < count && !run->failed; index++) {
            Connection* connection = events[index].data.ptr;
            if (events[index].events & (EPOLLIN | EPOLLERR | EPOLLHUP)) {
                on_readable(run, connection);
            } else if (events[index].events & EPOLLOUT) {
                flush(run, connection);
            }
        }
        if (!started_ns && run->ready == run->total) {
            started_ns = monotonic_ns();
            started_cpu = cpu_seconds();
        }
        for (int index = run->options->subscribers; started_ns && index < run->total; index++) {
            fill(run, &run->connections[index]);
        }
    }
    results->seconds = (double)(monotonic_ns() - started_ns) / 1e9;
    results->cpu_seconds = cpu_seconds() - started_cpu;
}

int run_load(const Options* options, Results* results, char* message, size_t message_size)
{
    Run run = {.options = options, .latency = &results->latency, .message = message, .message_size = message_size};
    run.total = options->subscribers + options->publishers;
    run.connections = calloc((size_t)run.total, sizeof *run.connections);
    run.epoll = epoll_create1(EPOLL_CLOEXEC);
    if (!run.connections || run.epoll < 0) {
        snprintf(message, message_size, "cannot set up the run: %s", strerror(errno));
        return 1;
    }
    for (int index = 0; index < run.total && !run.failed; index++) {
        Connection* connection = &run.connections[index];
        connection->fd = -1;
        connection->role = index < options->subscribers ? ROLE_SUBSCRIBER : ROLE_PUBLISHER;
        connection->index = connection->role == ROLE_SUBSCRIBER ? index : index - options->subscribers;
        connection->expected = calloc((size_t)options->publishers, sizeof *connection->expected);
        if (!connection->expected) {
            fail(&run, "out of memory");
        } else {
            open_connection(&run, connection);
        }
    }
    if (!run.failed) {
        serve(&run, results);
    }
    for (int index = 0; index < run.total; index++) {
        close_connection(&run.connections[index]);
    }
    free(run.connections);
    close(run.epoll);
    results->messages = (uint64_t)options->publishers * options->count;
    results->deliveries = run.deliveries;
    return run.failed ? 1 : 0;
}
