/* The few MQTT v5 packets the load generator sends and reads, written byte by byte, so that it
 * measures every broker through the same code and depends on nothing it measures. */
#ifndef LOADGEN_WIRE_H
#define LOADGEN_WIRE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

enum
{
    PACKET_CONNACK = 2,
    PACKET_PUBLISH = 3,
    PACKET_PUBACK = 4,
    PACKET_PUBREC = 5,
    PACKET_PUBREL = 6,
    PACKET_PUBCOMP = 7,
    PACKET_SUBACK = 9,
    PACKET_DISCONNECT = 14,
};

/* What the generator puts at the head of every payload: who sent it, its place in that publisher's
 * stream, and when (monotonic clock), so that the subscriber checks order and measures latency. */
enum
{
    STAMP_SIZE = 16
};
typedef struct
{
    uint32_t publisher;
    uint32_t sequence;
    uint64_t sent_ns;
} Stamp;

/* Bytes waiting to be written or parsed; it grows on demand and the program stops if memory runs
 * out, since a generator that cannot hold its window cannot measure anything. */
typedef struct
{
    unsigned char* data;
    size_t length;
    size_t capacity;
} Buffer;

void buffer_reserve(Buffer* buffer, size_t extra);
void buffer_consume(Buffer* buffer, size_t count);
void buffer_free(Buffer* buffer);

void put_connect(Buffer* out, const char* client_id);
void put_subscribe(Buffer* out, const char* filter, int qos);
/* A PUBLISH of payload_size bytes: the stamp, then filler. Packet id 0 for QoS 0. */
void put_publish(Buffer* out, const char* topic, int qos, uint16_t packet_id, const Stamp* stamp, size_t payload_size);
/* PUBACK, PUBREC, PUBREL or PUBCOMP in the short form: reason Success, no properties. */
void put_ack(Buffer* out, int type, uint16_t packet_id);
void put_disconnect(Buffer* out);

/* One packet cut from the head of a stream. */
typedef struct
{
    int type;
    int flags;
    const unsigned char* body;
    size_t body_length;
    size_t total_length; /* fixed header included */
} Packet;

/* 1: a whole packet is at the head of data; 0: more bytes are needed (*needed says how many in
 * all, once the fixed header is known); -1: the stream is malformed or the packet is larger than
 * max_packet. */
int cut_packet(const unsigned char* data, size_t length, size_t max_packet, Packet* packet, size_t* needed);

/* The packet id and reason of an acknowledgement (reason 0 when the short form leaves it out). */
bool read_ack(const Packet* packet, uint16_t* packet_id, int* reason);

/* A received PUBLISH: its QoS, packet id and the stamp at the head of its payload. */
typedef struct
{
    int qos;
    uint16_t packet_id;
    Stamp stamp;
    size_t payload_size;
} Delivery;
bool read_publish(const Packet* packet, Delivery* delivery);

#endif
