#include "Wire.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void buffer_reserve(Buffer* buffer, size_t extra)
{
    if (buffer->length + extra <= buffer->capacity) {
        return;
    }
    size_t capacity = buffer->capacity ? buffer->capacity : 4096;
    while (capacity < buffer->length + extra) {
        capacity *= 2;
    }
    unsigned char* data = realloc(buffer->data, capacity);
    if (!data) {
        fprintf(stderr, "loadgen: out of memory for a %zu-byte buffer\n", capacity);
        exit(1);
    }
    buffer->data = data;
    buffer->capacity = capacity;
}

void buffer_consume(Buffer* buffer, size_t count)
{
    if (count == 0) {
        return;
    }
    memmove(buffer->data, buffer->data + count, buffer->length - count);
    buffer->length -= count;
}

void buffer_free(Buffer* buffer)
{
    free(buffer->data);
    *buffer = (Buffer){0};
}

/* Callers reserve first; these only append. */
static void put_byte(Buffer* out, unsigned value) { out->data[out->length++] = (unsigned char)value; }

static void put_u16(Buffer* out, unsigned value)
{
    put_byte(out, (value >> 8) & 0xFF);
    put_byte(out, value & 0xFF);
}

static void put_bytes(Buffer* out, const void* bytes, size_t count)
{
    memcpy(out->data + out->length, bytes, count);
    out->length += count;
}

static void put_string(Buffer* out, const char* text)
{
    size_t length = strlen(text);
    put_u16(out, (unsigned)length);
    put_bytes(out, text, length);
}

/* The fixed header, after reserving room for it and the body that follows. */
static void put_header(Buffer* out, unsigned first_byte, size_t remaining)
{
    buffer_reserve(out, 5 + remaining);
    put_byte(out, first_byte);
    do {
        unsigned digit = remaining % 128;
        remaining /= 128;
        put_byte(out, remaining ? digit | 0x80 : digit);
    } while (remaining);
}

void put_connect(Buffer* out, const char* client_id)
{
    /* Keep alive 0: a QoS 0 subscriber sends nothing for the whole run, and must not be timed out. */
    put_header(out, 0x10, 6 + 1 + 1 + 2 + 1 + 2 + strlen(client_id));
    put_string(out, "MQTT");
    put_byte(out, 5);    /* protocol version */
    put_byte(out, 0x02); /* clean start */
    put_u16(out, 0);
    put_byte(out, 0); /* no properties */
    put_string(out, client_id);
}

void put_subscribe(Buffer* out, const char* filter, int qos)
{
    put_header(out, 0x82, 2 + 1 + 2 + strlen(filter) + 1);
    put_u16(out, 1);
    put_byte(out, 0);
    put_string(out, filter);
    put_byte(out, (unsigned)qos);
}

void put_publish(Buffer* out, const char* topic, int qos, uint16_t packet_id, const Stamp* stamp, size_t payload_size)
{
    put_header(out, 0x30 | (unsigned)qos << 1, 2 + strlen(topic) + (qos ? 2 : 0) + 1 + payload_size);
    put_string(out, topic);
    if (qos) {
        put_u16(out, packet_id);
    }
    put_byte(out, 0);
    put_bytes(out, &stamp->publisher, 4);
    put_bytes(out, &stamp->sequence, 4);
    put_bytes(out, &stamp->sent_ns, 8);
    memset(out->data + out->length, 0, payload_size - STAMP_SIZE);
    out->length += payload_size - STAMP_SIZE;
}

void put_ack(Buffer* out, int type, uint16_t packet_id)
{
    /* PUBREL alone carries the flags 0b0010. */
    put_header(out, (unsigned)type << 4 | (type == PACKET_PUBREL ? 0x02 : 0), 2);
    put_u16(out, packet_id);
}

void put_disconnect(Buffer* out) { put_header(out, 0xE0, 0); }

int cut_packet(const unsigned char* data, size_t length, size_t max_packet, Packet* packet, size_t* needed)
{
    size_t remaining = 0;
    size_t header = 1;
    for (unsigned shift = 0;; shift += 7) {
        if (header > 4) {
            return -1;
        }
        if (header >= length) {
            *needed = 0;
            return 0;
        }
        remaining |= (size_t)(data[header] & 0x7F) << shift;
        if (!(data[header++] & 0x80)) {
            break;
        }
    }
    if (header + remaining > max_packet) {
        return -1;
    }
    *needed = header + remaining;
    if (length < *needed) {
        return 0;
    }
    *packet = (Packet){data[0] >> 4, data[0] & 0x0F, data + header, remaining, header + remaining};
    return 1;
}

static unsigned read_u16(const unsigned char* bytes) { return (unsigned)bytes[0] << 8 | bytes[1]; }

bool read_ack(const Packet* packet, uint16_t* packet_id, int* reason)
{
    if (packet->body_length < 2) {
        return false;
    }
    *packet_id = (uint16_t)read_u16(packet->body);
    *reason = packet->body_length > 2 ? packet->body[2] : 0;
    return true;
}

/* The length of the property block at bytes, including its own length field; 0 if malformed. */
static size_t property_block_length(const unsigned char* bytes, size_t available)
{
    size_t value = 0;
    for (size_t index = 0; index < 4 && index < available; index++) {
        value |= (size_t)(bytes[index] & 0x7F) << (7 * index);
        if (!(bytes[index] & 0x80)) {
            return index + 1 + value <= available ? index + 1 + value : 0;
        }
    }
    return 0;
}

bool read_publish(const Packet* packet, Delivery* delivery)
{
    const unsigned char* cursor = packet->body;
    const unsigned char* end = packet->body + packet->body_length;
    delivery->qos = (packet->flags >> 1) & 3;
    if (end - cursor < 2 || (size_t)(end - cursor) < 2 + read_u16(cursor)) {
        return false;
    }
    cursor += 2 + read_u16(cursor);
    delivery->packet_id = 0;
    if (delivery->qos) {
        if (end - cursor < 2) {
            return false;
        }
        delivery->packet_id = (uint16_t)read_u16(cursor);
        cursor += 2;
    }
    size_t properties = property_block_length(cursor, (size_t)(end - cursor));
    if (!properties || (size_t)(end - cursor) < properties + STAMP_SIZE) {
        return false;
    }
    cursor += properties;
    memcpy(&delivery->stamp.publisher, cursor, 4);
    memcpy(&delivery->stamp.sequence, cursor + 4, 4);
    memcpy(&delivery->stamp.sent_ns, cursor + 8, 8);
    delivery->payload_size = (size_t)(end - cursor);
    return true;
}
