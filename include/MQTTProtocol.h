/** @file
 * libOstrel_MQTTProtocol: MQTT version 5 packet codec and stream reassembly.
 *
 * Conventions that hold for every operation below:
 * - Each returns true on success. On entry it stores false in MQTTProtocol_IsErrorOccur; on failure
 *   it stores true there, then the code in MQTTProtocol_dwErrorCode, and returns false. The code is
 *   never reset on success, so read it only after a false result. Both globals are shared by all
 *   threads without a lock: a code read after a false result is right only if no other thread called
 *   into the library in between.
 * - Builders (MQTTProtocol_Packet_*) write a packet's body only into the caller's buffer, whose
 *   capacity is never passed: the caller provides enough room. The packet is completed with
 *   MQTTProtocol_Packet_Header.
 * - Decoders (MQTTProtocol_Parse_* of a packet type) read a body as MQTTProtocol_Parse_Recv hands it
 *   out, copy strings without a terminator and leave the out-parameter of an absent field untouched:
 *   zero outputs, set property-list pointers to null and counts to 0 before the call.
 * - Integers on the wire are big-endian. The library is built for little-endian hosts, where
 *   conversion is an unconditional byte swap; some builders swap the caller's values in place.
 * - Property lists: an array of pointers to MQTTPROTOCOL_HDRPROPERTY records, passed as the address
 *   of the array variable (MQTTPROTOCOL_HDRPROPERTY***) with an int count. A decoded list is
 *   allocated by the Keel allocator and owned by the caller, who releases it with
 *   Keel_OperatorMemory_Free((void***)&list, count).
 */
#ifndef MQTTPROTOCOL_H
#define MQTTPROTOCOL_H

#include <stdbool.h>
#include <stdint.h>

#include "Hopper_TaskPool.h"
#include "Keel_OperatorMemory.h"

#ifdef __cplusplus
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#endif

/** Marks exactly what the shared library exports; everything else is hidden. */
#define MQTTPROTOCOL_API __attribute__((visibility("default")))

/** Pins a record's layout at compile time, in C++ and in C11. */
#ifdef __cplusplus
#define MQTTPROTOCOL_STATIC_ASSERT(cond, why) static_assert(cond, why)
#else
#define MQTTPROTOCOL_STATIC_ASSERT(cond, why) _Static_assert(cond, why)
#endif

/** @file
 * @par Error codes, stored in MQTTProtocol_dwErrorCode. 0x070B1003 is never used.
 * Codes of the readiness pool are passed through unchanged and lie outside the 0x070B block.
 */
/** A builder's output buffer or output-length pointer is null. */
#define MQTTPROTOCOL_ERR_PACKET_ARGUMENT 0x070B0000ULL
/** A null or out-of-range argument of the parser side: a decoder's body pointer; Insert's address
 * (null, or 128 bytes or more); Send's address or bytes; Recv's address, or an out-pointer when there
 * is a packet to write through it; a session or bytes given to Packet or Build; an unknown body
 * mode given to BodyMode. */
#define MQTTPROTOCOL_ERR_PARSE_ARGUMENT 0x070B1000ULL
/** A CONNECT's protocol level is not 5. */
#define MQTTPROTOCOL_ERR_PARSE_VERSION 0x070B1001ULL
/** A complete SUBSCRIBE or UNSUBSCRIBE arrived whose fixed-header flags are not 2. */
#define MQTTPROTOCOL_ERR_PARSE_HDRFLAGS 0x070B1002ULL
/** A remaining length runs past the bytes given, or would need a fifth byte; or Send refused a packet
 * whose remaining length is above MQTTPROTOCOL_PACKET_BLOCK_SIZE (0xA00000), or a piece that would
 * make one input count more bytes than an int holds. */
#define MQTTPROTOCOL_ERR_PARSE_LENGTH 0x070B1004ULL
/** Out of memory. */
#define MQTTPROTOCOL_ERR_PARSE_MALLOC 0x070B1005ULL
/** The client address is not in the session table. */
#define MQTTPROTOCOL_ERR_PARSE_NOTFOUND 0x070B1006ULL
/** The client's packet queue is empty. */
#define MQTTPROTOCOL_ERR_PARSE_EMPTY 0x070B1007ULL
/** The oldest queued packet of the client is not yet complete. */
#define MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE 0x070B1008ULL

/* Records */

/** The first byte of a packet: a plain copy of that byte fills it. */
typedef struct
{
    unsigned char byMsgFlag : 4; /**< bits 0-3: flags of the packet type (PUBLISH: DUP, QoS, RETAIN) */
    unsigned char byMsgType : 4; /**< bits 4-7: control packet type, 1 CONNECT to 15 AUTH */
} MQTTPROTOCOL_FIXEDHEADER;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(MQTTPROTOCOL_FIXEDHEADER) == 1, "the fixed header record is the packet's first byte");

/** One property. nPropertyLen 1, 2 or 4 means an integer in byValue, wValue or dwValue; any other
 * width is that many raw bytes in tszValue, held as on the wire (a string property carries its own
 * two-byte big-endian length prefix inside tszValue). */
typedef struct
{
    int nPropertyLen;           /**< width of the value in bytes */
    unsigned char byPropertyID; /**< MQTT v5 property identifier */
    union
    {
        unsigned char byValue;
        unsigned short wValue;
        unsigned int dwValue;
        char tszValue[260];
    };
} MQTTPROTOCOL_HDRPROPERTY;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(((MQTTPROTOCOL_HDRPROPERTY*)0)->tszValue) == 260,
                           "a property holds 260 bytes of value");

/** The CONNECT variable header without its properties, byte for byte as on the wire. */
typedef struct
{
    unsigned char byNameLenMSB; /**< 0x00 */
    unsigned char byNameLenLSB; /**< 0x04 */
    char tszProtocol[4];        /**< "MQTT", no terminator */
    unsigned char byVersion;    /**< protocol level, 5 */
    unsigned char byConnFlags;  /**< bit 7 user name, bit 6 password; the others are carried through */
    unsigned short wKeepAlive;  /**< seconds: network order when built, host order when decoded */
} MQTTPROTOCOL_HDRCONNNECT;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(MQTTPROTOCOL_HDRCONNNECT) == 10, "the CONNECT header record is its ten wire bytes");

/** The CONNECT payload strings as decoded, without terminators of their own. */
typedef struct
{
    char tszClientID[260];   /**< client identifier */
    char tszClientUser[260]; /**< user name, read when connect flag bit 7 is set */
    char tszClientPass[260]; /**< password, read when connect flag bit 6 is set */
} MQTTPROTOCOL_USERINFO;

/** The SUBSCRIBE subscription-options byte, copied whole in both directions and never checked. */
typedef struct
{
    unsigned char byMaxQos : 2;            /**< maximum QoS granted (0, 1, 2) */
    unsigned char byNoLocal : 1;           /**< do not send the client's own publications back */
    unsigned char byRetainAsPublished : 1; /**< keep RETAIN as published when forwarding */
    unsigned char byRetainHandling : 2;    /**< retain handling (0, 1, 2) */
    unsigned char byReserved : 2;          /**< reserved, 0 */
} MQTTPROTOCOL_HDRSUBSCRIBE;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(MQTTPROTOCOL_HDRSUBSCRIBE) == 1, "the subscription options record is one byte");

/** @file
 * @par Receive side: sessions, framing and delivery
 * A host calls MQTTProtocol_Parse_Init once, MQTTProtocol_Parse_Insert for each connection, then
 * MQTTProtocol_Parse_Send for every piece of bytes a connection delivers, in stream order. Each whole
 * packet is queued on the connection's session and counted ready in the Hopper pool. Worker threads,
 * one per pool index, loop on MQTTProtocol_Parse_WaitEvent, MQTTProtocol_Parse_GetPool and
 * MQTTProtocol_Parse_Recv; MQTTProtocol_Parse_ActiveEvent wakes them to stop. A connection that goes
 * away is removed with MQTTProtocol_Parse_Delete; MQTTProtocol_Parse_Destory ends the pool. Nothing
 * checks this order: the receive operations pass whatever pool handle there is to the pool.
 * Body modes. Where a delivered body lives is chosen for the whole process by
 * MQTTProtocol_Parse_BodyMode; either way the host owns a delivered body and releases it with
 * free(), and the only packet without a body is a two-byte PINGREQ cut as an input of its own (see
 * MQTTProtocol_Parse_Send): its body pointer is null.
 * - MQTTPROTOCOL_BODY_BLOCK, the default: every body comes in a block of exactly
 *   MQTTPROTOCOL_PACKET_BLOCK_SIZE bytes from calloc, the body at its start and zeros after it, so
 *   decoders may read past a body's end within its block. Each queued or delivered complete packet,
 *   a PINGREQ as much as a 10 MiB PUBLISH, holds 10 MiB of address space and, on Linux, a memory
 *   mapping of its own until its body is freed (the kernel merges neighbouring ones, but the
 *   process's limit, vm.max_map_count, is 65,530 by default): take packets promptly and free each
 *   body once decoded. Only the pages a body fills cost memory. Making and freeing a block costs a
 *   mapping and an unmapping in the kernel (several microseconds, more when another thread frees it,
 *   as every CPU that ran the host must then drop the mapping from its TLB).
 * - MQTTPROTOCOL_BODY_COMPACT: every body comes in a block from malloc of exactly its length (1 byte
 *   for a body of length 0). What it asks of a host: pass every decoder the length that
 *   MQTTProtocol_Parse_Recv handed out with the body; decoders then read nothing beyond it (bytes
 *   beyond it read as zero, as the block's zeros would), and give the same outputs as in block mode.
 *   What it frees a host from: 10 MiB of address space and a mapping per packet, the ceiling of
 *   65,530 mappings, and the unmapping on free. Choose it for any new host; stay with block mode only
 *   where code reads bodies beyond their length.
 * In both modes a packet still arriving waits in a buffer of its own, never in a block. The buffer
 * grows with the bytes that arrive, not with the size the header announces: a packet of up to 64 KiB
 * gets its full size at once, a larger one starts at 64 KiB and doubles as its bytes come, so a client
 * that stalls mid-packet holds at most twice what it sent, and 64 KiB at least. The piece that
 * completes the packet goes straight to where the body is delivered from: in compact mode the buffer
 * becomes the delivered block itself.
 * What block mode does to the host process. So that a block costs about 14 us (fresh pages from the
 * kernel) rather than about 120 us (the allocator clearing 10 MiB), the library calls glibc's
 * mallopt(M_MMAP_THRESHOLD, MQTTPROTOCOL_PACKET_BLOCK_SIZE) and mallopt(M_MMAP_MAX, INT_MAX) once,
 * just before it makes its first block. From then on glibc serves every allocation of 10 MiB or more
 * in the process, the host's included, with a mapping of its own, no longer moves that threshold by
 * itself (left alone, it would rise above 10 MiB when the first block is freed, and every later block
 * would come from the heap and be cleared by hand), and no longer stops at 65,536 mappings (past that
 * count it would take blocks from the heap, where they stay once freed: a burst of 70,000 PINGREQs
 * would make every later block cost 10 MiB of resident memory). Allocations below 10 MiB come from
 * the heap, as glibc's own adjustment would have arranged after the first large free. The calls
 * replace settings the host made before; settings the host makes afterwards stay, and blocks are then
 * still right but may cost the clearing. Under a sanitizer's allocator they change nothing. A host
 * that only ever uses compact mode never has them made.
 * Where the receive algorithm leaves room, this library decides:
 * - A remaining length above MQTTPROTOCOL_PACKET_BLOCK_SIZE cannot fit a block: such a packet is
 *   refused with MQTTPROTOCOL_ERR_PARSE_LENGTH as soon as its fixed header is cut, and it and the rest
 *   of its input are dropped, reported as a bad SUBSCRIBE is (see MQTTProtocol_Parse_Send). So is a
 *   piece that would make the bytes of one input count more than an int holds (a piece of nearly
 *   2 GiB behind the 1 to 3 bytes of a packet whose fixed header is still incomplete): it and those
 *   bytes are dropped.
 * - Null addresses, a negative byte count, a null data pointer with a positive count and an address
 *   of 128 bytes or more (Insert) are refused with MQTTPROTOCOL_ERR_PARSE_ARGUMENT before anything
 *   else happens.
 * Where this library departs from the receive algorithm, to hold less memory: a refused packet (bad
 * SUBSCRIBE/UNSUBSCRIBE flags, too long) gets no block at all, so the session records of
 * MQTTProtocol_Parse_Insert are the only memory the library never frees (see MQTTProtocol_Parse_Insert
 * and MQTTProtocol_Parse_Delete); a packet still arriving is held as described above, and the bytes
 * that follow it in the piece that completes it are cut straight from the caller's data.
 */

/** The size of every packet body block in block mode: 10 MiB. */
#define MQTTPROTOCOL_PACKET_BLOCK_SIZE 0xA00000

/** Body mode (MQTTProtocol_Parse_BodyMode): every body in a zero-filled block of
 * MQTTPROTOCOL_PACKET_BLOCK_SIZE bytes. The default. */
#define MQTTPROTOCOL_BODY_BLOCK 0
/** Body mode (MQTTProtocol_Parse_BodyMode): every body in a block of exactly its length. */
#define MQTTPROTOCOL_BODY_COMPACT 1

/** One packet of a session's queue, complete or still arriving. Only complete records are ever handed
 * out; a queue holds at most one that is not, at its back. Its forms:
 *   form           bHeaderReady  bPacketReady  ptszMsgBuffer holds                       nMsgLen      nPktLen
 *   complete       true          true          a block: the body only                    body length  packet size
 *   short PINGREQ  true          true          nothing (null)                            0            2
 *   body partial   true          false         the body bytes so far at its start and    bytes held   packet size
 *                                              the fixed header's size in its last byte,
 *                                              in a buffer that grows with the bytes
 *   short partial  false         false         the 0 to 3 bytes so far, in 3 bytes      bytes held   4
 * The packet size is the first byte, the remaining-length bytes and the body together. */
typedef struct
{
    MQTTPROTOCOL_FIXEDHEADER st_FixedHeader; /**< the first byte; in a short partial 0, unless two bytes came at once */
    char* ptszMsgBuffer;                     /**< see the forms above */
    int nMsgLen;                             /**< bytes of ptszMsgBuffer in use */
    int nPktLen;                             /**< the packet's size, or 4 while its fixed header waits */
    bool bHeaderReady;                       /**< the fixed header is decoded: nPktLen is the packet's size */
    bool bPacketReady;                       /**< the packet is whole and may be handed out */
} MQTTPROTOCOL_MSGBUFFER;

#ifdef __cplusplus
extern "C" {
#endif

/* Error state */

/** True when the most recent operation that touches it failed. */
extern MQTTPROTOCOL_API bool MQTTProtocol_IsErrorOccur;
/** Code of the most recent failure; 0 until the first one, never reset. */
extern MQTTPROTOCOL_API uint64_t MQTTProtocol_dwErrorCode;

/** Returns MQTTProtocol_dwErrorCode. If pInt_SysError is not null, stores there the calling thread's
 * errno as it stands now (not captured at the library's failure). Touches neither global. */
MQTTPROTOCOL_API uint64_t MQTTProtocol_GetLastError(int* pInt_SysError);

/* Fixed header */

/** Writes a whole packet into ptszMsgBuffer: byte 0 = (type & 0x0F) << 4 | (flags & 0x0F), the
 * remaining length nBodyLen, then nBodyLen bytes of lpszBody; sets *pInt_MsgLen to the bytes written.
 * The caller provides room for 5 + nBodyLen bytes (6 + nBodyLen above 268,435,455) and a body that does
 * not overlap the buffer; lpszBody is read only when nBodyLen > 0. Flags are not checked against the
 * type. A negative nBodyLen writes one length byte (the low eight bits of nBodyLen % 128, so -1 gives
 * 0xFF) and no body.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType,
                                                 const char* lpszBody, int nBodyLen, unsigned char byFlags);

/** @file
 * @par Packet bodies
 * Builders: ptszMsgBuffer receives the body, *pInt_MsgLen is SET to its size (not added to). The
 * caller provides room for the whole body: the fields it passes plus one property block, which is at
 * most 256 bytes beyond the widest raw property value (see CMQTTProtocol_Packet::
 * MQTTProtocol_Packet_Property). The property list (pppSt_Property, nPropertyCount) is read as the
 * block builder reads it and ITS TWO- AND FOUR-BYTE VALUES ARE SWAPPED TO NETWORK ORDER IN PLACE, so a
 * list must not be shared between concurrent calls nor reused without restoring it. Strings are
 * terminated and must not be null where they are written. Each builder fails with
 * MQTTPROTOCOL_ERR_PACKET_ARGUMENT, writing nothing, when ptszMsgBuffer or pInt_MsgLen is null; no
 * other argument is checked, and nothing else makes it fail.
 * Decoders: lpszMsgBuffer is a body as MQTTProtocol_Parse_Recv hands it out, with the length it
 * handed out. The decoders trust every length prefix and read fixed positions. In block mode they do
 * so whatever nMsgLen says, so a short or hostile body is read past its end into its zero-filled
 * block of 0xA00000 bytes (zeros, well defined), and a body from anywhere else must be readable as
 * far as its prefixes reach. In compact mode (see MQTTProtocol_Parse_BodyMode) every decoder reads
 * only the nMsgLen bytes it is given, a negative nMsgLen counting as 0, and every byte at or beyond
 * nMsgLen reads as zero: the outputs are byte for byte those of block mode for the same body. Where
 * a decoder below says "nMsgLen is not used", that holds in block mode. No terminator is
 * added to any copied string: zero every output first. An out-parameter of a field the body does not
 * carry is left as it was; when the property block is empty, the list out and the count out are not
 * written, so set the list pointer to null and the count to 0 before the call. A decoded list is the
 * caller's (release it with Keel_OperatorMemory_Free). Out-pointers are not checked: pass valid ones.
 * Each decoder fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT, writing no output, when lpszMsgBuffer is
 * null; only MQTTProtocol_Parse_Connect has a further failure.
 */

/** CONNECT body: the ten header bytes, the property block, the client identifier, then the user name
 * if bit 7 of pSt_HDRConnect->byConnFlags is set and the password if bit 6 is set, each string as a
 * big-endian 16-bit length and its bytes. No will fields are written, whatever the will flag says.
 * pSt_HDRConnect (not null) is MODIFIED: byNameLenLSB = 4, tszProtocol = "MQTT", byVersion = 5; zero it
 * before filling it so that byNameLenMSB is 0. Its ten bytes are then copied as they lie, so store
 * wKeepAlive in NETWORK order (60 seconds as the bytes 0x00 0x3C); the decoder hands it back in host
 * order. lpszClientID (not null): its length goes out cut to 16 bits, but all its bytes are copied, so
 * keep it below 65,536 bytes. lpszClientUser / lpszClientPass are read only under their flag bit; each
 * is written as its length cut to 16 bits and that many bytes.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT (record untouched) when ptszMsgBuffer or pInt_MsgLen is
 * null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQConnect(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                     MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect, const char* lpszClientID,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount,
                                                     const char* lpszClientUser, const char* lpszClientPass);
/** CONNACK body: byConnAckFlags (bit 0 session present) and byReasonCode as given, then the property
 * block; 3 bytes without properties. Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or
 * pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REPConnect(char* ptszMsgBuffer, int* pInt_MsgLen,
                                                     unsigned char byConnAckFlags, unsigned char byReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/** Decodes a CONNECT body. nMsgLen is not used. Copies the ten header bytes into *pSt_HDRConnect and
 * converts wKeepAlive to host order; then, if byVersion is 5, the properties, the client identifier
 * into pSt_UserInfo->tszClientID and, under connect flag bits 7 and 6, the user name and the password.
 * No will fields are skipped: in a CONNECT with a will, the will's fields are read in the places of
 * user name and password. Each of the three strings is copied up to its field's 260 bytes (a longer
 * one is cut there, the fields after it are still read from their places); zero *pSt_UserInfo first:
 * no terminator is added, and a string of 260 bytes or more fills its whole field.
 * Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null (nothing written), and with
 * MQTTPROTOCOL_ERR_PARSE_VERSION when the protocol level is not 5: *pSt_HDRConnect then already holds
 * the ten bytes (keep-alive in host order); the user record and property outs are untouched. The
 * protocol name is not checked. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Connect(const char* lpszMsgBuffer, int nMsgLen,
                                                 MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                                 MQTTPROTOCOL_USERINFO* pSt_UserInfo,
                                                 MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
/** Decodes a CONNACK body. nMsgLen is not used. Byte 0, the acknowledge flags, is dropped (the
 * session-present bit is not handed out); *pbyReasonCode = byte 1, not judged; properties from
 * byte 2. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Connack(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                 MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);

/** DISCONNECT body: byReasonCode as given, then the property block, always (2 bytes at least).
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_DisConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/** Decodes a DISCONNECT body. nMsgLen is not used: bytes 0 (*pbyReasonCode) and 1 (property length)
 * are always read, so the standard's empty body is not recognised. Fails with
 * MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Disconnect(const char* lpszMsgBuffer, int nMsgLen,
                                                    unsigned char* pbyReasonCode,
                                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                    int* pInt_PropertyCount);

/** PUBLISH body: lpszTopicName (not null) as its length cut to 16 bits and that many bytes; wMsgID
 * big-endian only when it is non-zero (the value alone decides: pass 0 for QoS 0 and non-zero for
 * QoS 1 and 2, and give the matching flags to MQTTProtocol_Packet_Header); the property block; then
 * nPayloadLen bytes of lpszPayload (read only when nPayloadLen > 0).
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQPublish(char* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszTopicName,
                                                     const char* lpszPayload, int nPayloadLen, unsigned short wMsgID,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/** The body shared by PUBACK, PUBREC, PUBREL and PUBCOMP (the type is what the caller gives to
 * MQTTProtocol_Packet_Header): wMsgID big-endian only when non-zero, byReasonCode, then the property
 * block unless nPropertyCount is negative (identifier and reason code only, the standard's short
 * form). Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REPPublish(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                     unsigned char byReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/** Decodes a PUBLISH body of nMsgLen bytes (the packet's remaining length). Copies the topic into
 * ptszTopicName, which must hold 65,535 bytes. Reads a packet identifier into *pwMsgID only when the
 * whole flags nibble of *pSt_FixedHeader (not null) is exactly 2 or 4: a QoS 1 or 2 PUBLISH that also
 * has DUP or RETAIN set is read as if it had none, its identifier bytes taken as the property block.
 * The type nibble is not examined. Then the properties; then, only if bytes remain, sets
 * *pInt_PayloadLen to their number and copies them into ptszPayload, which must hold nMsgLen bytes;
 * otherwise *pInt_PayloadLen is not written (it is not set to 0).
 * Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Publish(const char* lpszMsgBuffer, int nMsgLen,
                                                 MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader, char* ptszTopicName,
                                                 unsigned short* pwMsgID, char* ptszPayload, int* pInt_PayloadLen,
                                                 MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
/** Decodes a PUBACK, PUBREC, PUBREL or PUBCOMP body (note: reason code before identifier here).
 * *pwMsgID = bytes 0-1, *pbyReasonCode = byte 2 WHATEVER nMsgLen IS (a two-byte body hands out the
 * byte behind it, not the standard's implied 0x00); the property block from byte 3 only when nMsgLen
 * is greater than 3. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Puback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                int* pInt_PropertyCount);

/** SUBSCRIBE body with one topic filter: wMsgID big-endian (0 included), the property block,
 * lpszTopicFilter (not null) as its length cut to 16 bits and that many bytes, then the one byte of
 * *pSt_SubOption (not null) as it is. Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer
 * or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                       const char* lpszTopicFilter,
                                                       MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                                       MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/** SUBACK or UNSUBACK body with one reason code: wMsgID big-endian only when non-zero (an identifier
 * of 0 is left out, and MQTTProtocol_Parse_UNSuback then does not read it back as 0), the property
 * block, always (a count below 1 gives the byte 0), then byReasonCode.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REPComm(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                  unsigned char byReasonCode,
                                                  MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/** Decodes a SUBSCRIBE body. nMsgLen is not used. *pwMsgID = bytes 0-1; the properties; the first
 * topic filter into ptszTopicFilter, which must hold 65,535 bytes; its options byte into
 * *pSt_SubOption. Further topic filters are ignored. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when
 * lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Subscribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                                   char* ptszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                                   MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
/** Decodes a SUBACK body by this library's own positions, which are not the wire layout's.
 * nMsgLen is not used. *pwMsgID = bytes 0-1, but the property length is then read from byte 0 (the
 * identifier's high byte) and the properties from byte 1, and *pbyReasonCode is the byte behind them:
 * for an identifier below 256 no property is decoded and the reason code is the identifier's low byte
 * (00 07 00 02 yields identifier 7 and reason code 0x07). Use MQTTProtocol_Parse_UNSuback to read the
 * layout MQTTProtocol_Packet_REPComm writes. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when
 * lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Suback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                int* pInt_PropertyCount);

/** UNSUBSCRIBE body with one topic filter: wMsgID big-endian (0 included), the property block, then
 * lpszTopicFilter (not null) as its length cut to 16 bits and that many bytes; no options byte.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                         const char* lpszTopicFilter,
                                                         MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                         int nPropertyCount);
/** Decodes an UNSUBSCRIBE body. nMsgLen is not used. *pwMsgID = bytes 0-1; the properties; the first
 * topic filter into ptszTopicFilter, which must hold 65,535 bytes. Further filters are ignored.
 * Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                                    char* ptszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                    int* pInt_PropertyCount);
/** Decodes an UNSUBACK body. nMsgLen is not used. *pwMsgID = bytes 0-1 (always expected: a body built
 * with identifier 0 is misread), the property length at byte 2 and the properties, then the first
 * reason code into *pbyReasonCode; later codes are ignored. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT
 * when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                  unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                  int* pInt_PropertyCount);

/** @file
 * @par Receive side (see the section above the records). Lock order inside the library: the session
 * table's lock, then one session's lock; no lock is held while a pool call waits.
 */

/** Creates the readiness pool with nPoolCount indexes (the pool refuses fewer than 1) and keeps its
 * handle, replacing any earlier one without destroying it: call it once. Fails with the pool's own code
 * (Hopper_GetLastError) when the pool cannot be made; the kept handle is null then. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Init(int nPoolCount);
/** Destroys the pool, waking its waiters (their waits fail). The handle stays kept, so later receive
 * calls hand a stale handle to the pool, which refuses it; sessions and their queues are left as they
 * are. Always returns true, even before MQTTProtocol_Parse_Init. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Destory(void);

/** Opens a session for a client address (NUL-terminated, at most 127 bytes, compared byte for byte),
 * enters the address into the pool, which picks its pool index, and makes it known to Send and Recv.
 * Kept on purpose: an address already present is not looked up first. The call returns true, the first
 * session with everything queued in it stays the one in use, the new session record stays
 * allocated and unreachable, and the pool holds the address once more. So a reconnect may insert the
 * new session while the old one's Delete is under way: the pool keeps counting the session left.
 * Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT (lpszClientAddr null or 128 bytes or more; nothing
 * happens) or MQTTPROTOCOL_ERR_PARSE_MALLOC (out of memory; nothing happens, except that the pool may
 * keep the address when the table itself could not grow). */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Insert(const char* lpszClientAddr);
/** Closes a client's session: frees every body block and buffer still queued in it, drops its queue,
 * removes one of the address's pool entries with its ready count, and removes the address from the
 * table. The session record itself (its lock and empty queue) is deliberately not freed: a host that
 * opens and closes very many sessions grows by one record each time. Returns true always; an
 * unknown or null address changes nothing and leaves the flag false.
 * Should memory for the lookup run out, nothing is deleted and the flag is set with
 * MQTTPROTOCOL_ERR_PARSE_MALLOC. Bodies already handed out stay the host's. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Delete(const char* lpszClientAddr);

/** Hands nMsgLen bytes that a client sent (lpszMsgBuffer, only read) to its session, which cuts them into
 * packets. Give each client's bytes in stream order: calls for one client are serialised, calls for
 * different clients run in parallel. Every whole packet is queued and raises the client's ready count
 * in the pool by one. How the stream is cut, kept exactly as follows:
 * - A packet's fixed header is decoded once 4 bytes from its first byte are at hand; until then they
 *   wait. So 1 to 3 bytes left after the last whole packet of a piece wait, and a two- or three-byte
 *   packet (a DISCONNECT 0xE0 0x00, say) is queued only once further bytes have made 4.
 * - The exception: an input of exactly 2 bytes that is a PINGREQ (first byte 0xC0 to 0xCF, second
 *   0x00) is queued at once, with a null body. An input is a piece given while no packet waits, or the
 *   rest of an input after a whole packet: 0xC0 0x00 alone is queued at once; 0xC0 0x00 0xC0 0x00 gives
 *   a PINGREQ with a block, then one with a null body. A piece given while bytes wait is added to them
 *   like any other, even a 0xC0 0x00, and an empty piece leaves 0 bytes waiting.
 * - The piece that gives waiting bytes what they lack (4 bytes in all, or the rest of their packet)
 *   is cut, whole, together with them as one input from their packet's first byte.
 * - A remaining-length field that is malformed (a fifth byte would be needed), or cut off because the
 *   input is exactly 4 bytes and the field needs 4, makes the first byte a packet of its own with an
 *   empty body, and cutting goes on at the next byte (0x070B1004 is set, then cleared by that cut).
 *   Hosts meet the cut-off case with a packet of 2,097,152 body bytes or more (a four-byte length)
 *   whose first piece is exactly 4 bytes, or whose bytes arrive one at a time: its stream falls apart.
 * - A whole SUBSCRIBE or UNSUBSCRIBE whose flags are not 2 is refused with MQTTPROTOCOL_ERR_PARSE_HDRFLAGS
 *   (flags are checked once the packet is whole), and a remaining length above
 *   MQTTPROTOCOL_PACKET_BLOCK_SIZE with MQTTPROTOCOL_ERR_PARSE_LENGTH as soon as it is decoded; so is a
 *   packet whose block or buffer cannot be allocated or grown (MQTTPROTOCOL_ERR_PARSE_MALLOC). The refused
 *   packet and everything after it in its input are dropped; what was queued before it stays.
 * The result is false only when the refused packet is the first of a piece given while no packet
 * waits (nothing of the piece is queued). Otherwise Send returns true with MQTTProtocol_IsErrorOccur
 * left true: check the flag after a true result too if losses matter. After a true result with the
 * flag false the code may still be 0x070B1004 from a malformed length. There is no resynchronising a
 * stream other than Delete, then Insert.
 * Fails, changing nothing, with MQTTPROTOCOL_ERR_PARSE_ARGUMENT (lpszClientAddr null, nMsgLen
 * negative, lpszMsgBuffer null with nMsgLen above 0; checked first) and
 * MQTTPROTOCOL_ERR_PARSE_NOTFOUND (address not inserted, or deleted). */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
/** Takes the oldest packet of a client's queue: its first byte into *pSt_FixedHeader, its body block into
 * *pptszMsgBuffer (null for a PINGREQ cut as an input of its own) and the body length into
 * *pInt_MsgLen, then lowers the client's ready count in the pool by one (after releasing the session's
 * lock, so another worker may briefly see the count and get MQTTPROTOCOL_ERR_PARSE_EMPTY: not an error
 * in the data; a Delete of the address waits for it, so it never lands on a later session). The host
 * owns the block (10 MiB, or the body's own size in compact mode: see "Body modes") and frees it with
 * free(); in compact mode it passes *pInt_MsgLen on to the decoder. One packet per call.
 * Fails, writing nothing and leaving the queue and the count alone, with, in the order checked,
 * MQTTPROTOCOL_ERR_PARSE_ARGUMENT (lpszClientAddr null), MQTTPROTOCOL_ERR_PARSE_NOTFOUND (address
 * unknown), MQTTPROTOCOL_ERR_PARSE_EMPTY (queue empty), MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE (the oldest
 * packet is still arriving), whatever the out-pointers are, and MQTTPROTOCOL_ERR_PARSE_ARGUMENT (an
 * out-pointer null when there is a packet to write through it). */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Recv(const char* lpszClientAddr, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                                              char** pptszMsgBuffer, int* pInt_MsgLen);

/** Lists the clients of pool index nPoolIndex that have packets ready: *pppSt_ListClient receives an
 * array of *pInt_ListCount record pointers (address and ready count each), which the caller releases
 * with Keel_OperatorMemory_Free((void***)pppSt_ListClient, *pInt_ListCount). Take each client's
 * packets with MQTTProtocol_Parse_Recv, once per ready packet. Fails with the pool's own code: nothing
 * ready (HOPPER_ERR_NOTREADY, nothing written), a bad index or null pointer, a stale handle. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_GetPool(int nPoolIndex, TAVRIN_HOPPER_TASKEVENT*** pppSt_ListClient,
                                                 int* pInt_ListCount);
/** Blocks until some client of pool index nPoolIndex has a packet ready or the index is activated.
 * nTimeout in milliseconds: negative waits without limit, 0 only tests. No lock of the library is held
 * meanwhile. Fails with the pool's own code: HOPPER_ERR_TIMEOUT, HOPPER_ERR_DESTROYED (the pool was
 * destroyed during the wait), or a bad index or handle. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_WaitEvent(int nPoolIndex, int nTimeout);
/** Wakes every thread waiting on pool index nPoolIndex although nothing is ready (how a host stops its
 * workers); with no waiter, the next wait on that index returns at once, once. Fails with the pool's
 * own code for a bad index or handle. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_ActiveEvent(int nPoolIndex);

/** Chooses, for the whole process, the block every packet completed from now on is delivered in:
 * MQTTPROTOCOL_BODY_BLOCK (the default) or MQTTPROTOCOL_BODY_COMPACT; see "Body modes" above. May be
 * called at any time, from any thread; packets already queued keep the block they have. Decoders
 * read the mode when they run: a body delivered in compact mode must be decoded while compact mode
 * is in force, and given the length Recv handed out with it.
 * Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT, changing nothing, for any other value. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_BodyMode(int nBodyMode);

#ifdef __cplusplus
} /**< extern "C" */

/** One client's receive session. Made by MQTTProtocol_Parse_Insert and never freed by the library. */
struct TAVRIN_MQTTPARSE
{
    char tszClientAddr[128];                /**< the address, NUL-terminated */
    int nPoolIndex;                         /**< the client's pool index, chosen by the pool */
    std::unique_ptr<std::mutex> pSt_Locker; /**< guards the queue and every record in it */
    /** The packet queue: new packets at the back, the oldest at the front. */
    std::unique_ptr<std::list<MQTTPROTOCOL_MSGBUFFER>> pStl_ListPacket;

    /** Sets only the two owning pointers (to null). */
    TAVRIN_MQTTPARSE() = default;
    /** Copies the address and the index, moves the lock and the queue. */
    TAVRIN_MQTTPARSE& operator=(TAVRIN_MQTTPARSE&&) = default;
    /** Releases the queue's nodes (not the blocks they point to), then the lock. */
    ~TAVRIN_MQTTPARSE() = default;
    TAVRIN_MQTTPARSE(const TAVRIN_MQTTPARSE&) = delete;
    TAVRIN_MQTTPARSE& operator=(const TAVRIN_MQTTPARSE&) = delete;
};

/** The builder. Its methods are what the MQTTProtocol_Packet_* functions forward to; it has no state. */
class MQTTPROTOCOL_API CMQTTProtocol_Packet
{
public:
    CMQTTProtocol_Packet() = default;
    ~CMQTTProtocol_Packet() = default;

    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType, const char* lpszBody,
                                    int nBodyLen, unsigned char byFlags);
    /** Encodes nLen as an MQTT variable-length integer into ptszLen and stores the byte count in *pbyLen.
     * No upper bound: a value above 268,435,455 gives a fifth byte, so ptszLen needs 5 bytes. A negative
     * value gives one byte. Always returns true and does not touch the error state. */
    bool MQTTProtocol_Packet_Length(int nLen, unsigned char* ptszLen, unsigned char* pbyLen);
    /** Writes a property block at ptszMsgBuffer (its one length byte first) and adds the block's size to
     * *pInt_MsgLen. A count of zero or less writes the single byte 0x00. Each record is written by its
     * nPropertyLen, never by its identifier: 4 and 2 byte-swap dwValue/wValue IN THE CALLER'S RECORD to
     * network order and write them; 1 writes byValue; any other width copies that many bytes of tszValue
     * (beyond 260 the rest of the width is zeros; a negative width writes the identifier alone).
     * The block position is eight bits wide: property bytes beyond 254 wrap over the block's start and
     * the length byte and the size added are the wrapped values. Writes at most 256 + the largest width
     * bytes. Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null;
     * the list itself is not checked (count > 0 requires count valid records). */
    bool MQTTProtocol_Packet_Property(char* ptszMsgBuffer, int* pInt_MsgLen, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                      int nPropertyCount);

    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REQConnect(char* ptszMsgBuffer, int* pInt_MsgLen, MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                        const char* lpszClientID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount, const char* lpszClientUser, const char* lpszClientPass);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REPConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byConnAckFlags,
                                        unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_DisConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byReasonCode,
                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REQPublish(char* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszTopicName,
                                        const char* lpszPayload, int nPayloadLen, unsigned short wMsgID,
                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REPPublish(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                        unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REQSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                          const char* lpszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REPComm(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                     unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                     int nPropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                            const char* lpszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                            int nPropertyCount);
};

/** The parser: decoders of every packet type and the per-client receive sessions. */
class MQTTPROTOCOL_API CMQTTProtocol_Parse
{
public:
    CMQTTProtocol_Parse() = default;
    ~CMQTTProtocol_Parse() = default;
    CMQTTProtocol_Parse(const CMQTTProtocol_Parse&) = delete;
    CMQTTProtocol_Parse& operator=(const CMQTTProtocol_Parse&) = delete;

    /** Decodes the remaining-length field at lpszMsgBuffer, of which nMsgLen bytes may be read: stores
     * the value in *pInt_Length and ADDS the number of bytes consumed (1 to 4) to *pInt_HdrLen. Longer
     * encodings than needed are accepted. Fails with MQTTPROTOCOL_ERR_PARSE_LENGTH, writing neither
     * output, when the field runs past nMsgLen bytes or its fourth byte still has bit 7 set. */
    bool MQTTProtocol_Parse_Length(const char* lpszMsgBuffer, int nMsgLen, int* pInt_Length, int* pInt_HdrLen);
    /** Decodes the properties of a block (lpszMsgBuffer points behind the block's length byte, nMsgLen is
     * that length byte) into a list allocated by the Keel allocator, in wire order, and stores its count.
     * Widths come from the identifier: the byte, two- and four-byte integer properties get 1, 2, 4 (two
     * and four bytes converted to host order); every other identifier, unknown ones included, takes
     * the rest of the block, so a string property swallows the properties behind it. A value is copied
     * into tszValue up to its 260 bytes, the rest of tszValue is zero; but a rest of the block of
     * exactly 2 or 4 bytes is read as an integer and converted to host order like one, so a
     * two-character string comes back with its bytes reversed. At least one property is always
     * decoded, even for nMsgLen <= 0. A fixed-width value near the end is read in full, up to 4 bytes
     * past the block: in block mode the caller guarantees them readable (bodies from
     * MQTTProtocol_Parse_Recv are); in compact mode nothing at or beyond nMsgLen is read (it reads as
     * zero).
     * Always returns true; if the list cannot be allocated the count is set to 0 and the list untouched. */
    bool MQTTProtocol_Parse_Property(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                     int* pInt_PropertyCount);

    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Connect(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                    MQTTPROTOCOL_USERINFO* pSt_UserInfo, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Connack(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Disconnect(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                       MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Publish(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                                    char* ptszTopicName, unsigned short* pwMsgID, char* ptszPayload,
                                    int* pInt_PayloadLen, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Puback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                   unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                   int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Subscribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                      char* ptszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                      MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Suback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                   unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                   int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                       char* ptszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                       int* pInt_PropertyCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                     unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                     int* pInt_PropertyCount);

    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Init(int nPoolCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Destory();
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Insert(const char* lpszClientAddr);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Delete(const char* lpszClientAddr);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_Recv(const char* lpszClientAddr, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                                 char** pptszMsgBuffer, int* pInt_MsgLen);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_GetPool(int nPoolIndex, TAVRIN_HOPPER_TASKEVENT*** pppSt_ListClient, int* pInt_ListCount);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_WaitEvent(int nPoolIndex, int nTimeout);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_ActiveEvent(int nPoolIndex);
    /** See the C function of the same name. */
    bool MQTTProtocol_Parse_BodyMode(int nBodyMode);

    /** The two steps of MQTTProtocol_Parse_Send, for a session whose lock the caller holds (they take no
     * lock and do no lookup). Packet cuts nMsgLen bytes that begin at a packet's first byte; Build adds
     * them to the packet still arriving at the back of the queue and, once that one is whole (or its
     * fixed header can be decoded), cuts the held bytes and the new ones as one input. Results, queued
     * records and codes are those described for MQTTProtocol_Parse_Send; Build returns the result of
     * that cut, which Send does not pass on. Both fail with MQTTPROTOCOL_ERR_PARSE_ARGUMENT, changing
     * nothing, when pSt_Session is null, nMsgLen is negative or lpszMsgBuffer is null with nMsgLen above
     * 0; Build also when no packet is arriving at the back of the queue. */
    bool MQTTProtocol_Parse_Packet(TAVRIN_MQTTPARSE* pSt_Session, const char* lpszMsgBuffer, int nMsgLen);
    /** The second step; see MQTTProtocol_Parse_Packet. */
    bool MQTTProtocol_Parse_Build(TAVRIN_MQTTPARSE* pSt_Session, const char* lpszMsgBuffer, int nMsgLen);

private:
    /** Destroying the parser frees neither the pool nor the sessions: Delete each client and Destory
     * the pool before unloading. */
    HOPPER_HANDLE hPool = nullptr; /**< the readiness pool, null until Init */
    std::shared_mutex st_Locker;   /**< guards stl_MapClient */
    /** Address -> session. The records are not owned: destroying the table leaves them allocated. */
    std::unordered_map<std::string, TAVRIN_MQTTPARSE*> stl_MapClient;
};

/** The two process-wide instances behind the C functions. */
extern MQTTPROTOCOL_API CMQTTProtocol_Parse m_Parse;
extern MQTTPROTOCOL_API CMQTTProtocol_Packet m_Packet;

#endif /**< __cplusplus */

#endif /**< MQTTPROTOCOL_H */
