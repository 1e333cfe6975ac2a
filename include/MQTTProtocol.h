/* libOstrel_MQTTProtocol: MQTT version 5 packet codec and stream reassembly.
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

#include "Keel_OperatorMemory.h"

/* Marks exactly what the shared library exports; everything else is hidden. */
#define MQTTPROTOCOL_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define MQTTPROTOCOL_STATIC_ASSERT(cond, why) static_assert(cond, why)
#else
#define MQTTPROTOCOL_STATIC_ASSERT(cond, why) _Static_assert(cond, why)
#endif

/* ---------------------------------------------------------------------------------------------
 * Error codes, stored in MQTTProtocol_dwErrorCode. 0x070B1003 is never used.
 * Codes of the readiness pool are passed through unchanged and lie outside the 0x070B block.
 * ------------------------------------------------------------------------------------------- */
/* A builder's output buffer or output-length pointer is null. */
#define MQTTPROTOCOL_ERR_PACKET_ARGUMENT 0x070B0000ULL
/* A decoder's body pointer is null. */
#define MQTTPROTOCOL_ERR_PARSE_ARGUMENT 0x070B1000ULL
/* A CONNECT's protocol level is not 5. */
#define MQTTPROTOCOL_ERR_PARSE_VERSION 0x070B1001ULL
/* A complete SUBSCRIBE or UNSUBSCRIBE arrived whose fixed-header flags are not 2. */
#define MQTTPROTOCOL_ERR_PARSE_HDRFLAGS 0x070B1002ULL
/* A remaining length runs past the bytes given, or would need a fifth byte. */
#define MQTTPROTOCOL_ERR_PARSE_LENGTH 0x070B1004ULL
/* Out of memory. */
#define MQTTPROTOCOL_ERR_PARSE_MALLOC 0x070B1005ULL
/* The client address is not in the session table. */
#define MQTTPROTOCOL_ERR_PARSE_NOTFOUND 0x070B1006ULL
/* The client's packet queue is empty. */
#define MQTTPROTOCOL_ERR_PARSE_EMPTY 0x070B1007ULL
/* The oldest queued packet of the client is not yet complete. */
#define MQTTPROTOCOL_ERR_PARSE_NOTCOMPLETE 0x070B1008ULL

/* ---------------------------------------------------------------------------------------------
 * Records
 * ------------------------------------------------------------------------------------------- */

/* The first byte of a packet: a plain copy of that byte fills it. */
typedef struct
{
    unsigned char byMsgFlag : 4; /* bits 0-3: flags of the packet type (PUBLISH: DUP, QoS, RETAIN) */
    unsigned char byMsgType : 4; /* bits 4-7: control packet type, 1 CONNECT to 15 AUTH */
} MQTTPROTOCOL_FIXEDHEADER;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(MQTTPROTOCOL_FIXEDHEADER) == 1, "the fixed header record is the packet's first byte");

/* One property. nPropertyLen 1, 2 or 4 means an integer in byValue, wValue or dwValue; any other
 * width is that many raw bytes in tszValue, held as on the wire (a string property carries its own
 * two-byte big-endian length prefix inside tszValue). */
typedef struct
{
    int nPropertyLen;           /* width of the value in bytes */
    unsigned char byPropertyID; /* MQTT v5 property identifier */
    union
    {
        unsigned char byValue;
        unsigned short wValue;
        unsigned int dwValue;
        char tszValue[260];
    };
} MQTTPROTOCOL_HDRPROPERTY;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(((MQTTPROTOCOL_HDRPROPERTY*)0)->tszValue) == 260, "a property holds 260 bytes of value");

/* The CONNECT variable header without its properties, byte for byte as on the wire. */
typedef struct
{
    unsigned char byNameLenMSB; /* 0x00 */
    unsigned char byNameLenLSB; /* 0x04 */
    char tszProtocol[4];        /* "MQTT", no terminator */
    unsigned char byVersion;    /* protocol level, 5 */
    unsigned char byConnFlags;  /* bit 7 user name, bit 6 password; the others are carried through */
    unsigned short wKeepAlive;  /* seconds: network order when built, host order when decoded */
} MQTTPROTOCOL_HDRCONNNECT;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(MQTTPROTOCOL_HDRCONNNECT) == 10, "the CONNECT header record is its ten wire bytes");

/* The CONNECT payload strings as decoded, without terminators of their own. */
typedef struct
{
    char tszClientID[260];
    char tszClientUser[260];
    char tszClientPass[260];
} MQTTPROTOCOL_USERINFO;

/* The SUBSCRIBE subscription-options byte, copied whole in both directions and never checked. */
typedef struct
{
    unsigned char byMaxQos : 2;
    unsigned char byNoLocal : 1;
    unsigned char byRetainAsPublished : 1;
    unsigned char byRetainHandling : 2;
    unsigned char byReserved : 2;
} MQTTPROTOCOL_HDRSUBSCRIBE;
MQTTPROTOCOL_STATIC_ASSERT(sizeof(MQTTPROTOCOL_HDRSUBSCRIBE) == 1, "the subscription options record is one byte");

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * Error state
 * ------------------------------------------------------------------------------------------- */

/* True when the most recent operation that touches it failed. */
extern MQTTPROTOCOL_API bool MQTTProtocol_IsErrorOccur;
/* Code of the most recent failure; 0 until the first one, never reset. */
extern MQTTPROTOCOL_API uint64_t MQTTProtocol_dwErrorCode;

/* Returns MQTTProtocol_dwErrorCode. If pInt_SysError is not null, stores there the calling thread's
 * errno as it stands now (not captured at the library's failure). Touches neither global. */
MQTTPROTOCOL_API uint64_t MQTTProtocol_GetLastError(int* pInt_SysError);

/* ---------------------------------------------------------------------------------------------
 * Fixed header
 * ------------------------------------------------------------------------------------------- */

/* Writes a whole packet into ptszMsgBuffer: byte 0 = (type & 0x0F) << 4 | (flags & 0x0F), the
 * remaining length nBodyLen, then nBodyLen bytes of lpszBody; sets *pInt_MsgLen to the bytes written.
 * The caller provides room for 5 + nBodyLen bytes (6 + nBodyLen above 268,435,455) and a body that does
 * not overlap the buffer; lpszBody is read only when nBodyLen > 0. Flags are not checked against the
 * type. A negative nBodyLen writes one length byte (the low eight bits of nBodyLen % 128, so -1 gives
 * 0xFF) and no body.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType,
                                                 const char* lpszBody, int nBodyLen, unsigned char byFlags);

#ifdef __cplusplus
} /* extern "C" */

/* The builder. Its methods are what the MQTTProtocol_Packet_* functions forward to; it has no state. */
class MQTTPROTOCOL_API CMQTTProtocol_Packet
{
public:
    CMQTTProtocol_Packet() = default;
    ~CMQTTProtocol_Packet() = default;

    /* See the C function of the same name. */
    bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType, const char* lpszBody,
                                    int nBodyLen, unsigned char byFlags);
    /* Encodes nLen as an MQTT variable-length integer into ptszLen and stores the byte count in *pbyLen.
     * No upper bound: a value above 268,435,455 gives a fifth byte, so ptszLen needs 5 bytes. A negative
     * value gives one byte. Always returns true and does not touch the error state. */
    bool MQTTProtocol_Packet_Length(int nLen, unsigned char* ptszLen, unsigned char* pbyLen);
    /* Writes a property block at ptszMsgBuffer (its one length byte first) and adds the block's size to
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
};

/* The parser: decoders of every packet type and the per-client receive sessions. */
class MQTTPROTOCOL_API CMQTTProtocol_Parse
{
public:
    CMQTTProtocol_Parse() = default;
    ~CMQTTProtocol_Parse() = default;
    CMQTTProtocol_Parse(const CMQTTProtocol_Parse&) = delete;
    CMQTTProtocol_Parse& operator=(const CMQTTProtocol_Parse&) = delete;

    /* Decodes the remaining-length field at lpszMsgBuffer, of which nMsgLen bytes may be read: stores
     * the value in *pInt_Length and ADDS the number of bytes consumed (1 to 4) to *pInt_HdrLen. Longer
     * encodings than needed are accepted. Fails with MQTTPROTOCOL_ERR_PARSE_LENGTH, writing neither
     * output, when the field runs past nMsgLen bytes or its fourth byte still has bit 7 set. */
    bool MQTTProtocol_Parse_Length(const char* lpszMsgBuffer, int nMsgLen, int* pInt_Length, int* pInt_HdrLen);
    /* Decodes the properties of a block (lpszMsgBuffer points behind the block's length byte, nMsgLen is
     * that length byte) into a list allocated by the Keel allocator, in wire order, and stores its count.
     * Widths come from the identifier: the byte, two- and four-byte integer properties get 1, 2, 4 (two
     * and four bytes converted to host order); every other identifier, unknown ones included, takes
     * the rest of the block, so a string property swallows the properties behind it. A value is copied
     * into tszValue up to its 260 bytes, the rest of tszValue is zero. At least one property is always
     * decoded, even for nMsgLen <= 0. A fixed-width value near the end is read in full, up to 4 bytes
     * past the block: the caller guarantees them readable (bodies from MQTTProtocol_Parse_Recv are).
     * Always returns true; if the list cannot be allocated the count is set to 0 and the list untouched. */
    bool MQTTProtocol_Parse_Property(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                     int* pInt_PropertyCount);
};

/* The two process-wide instances behind the C functions. */
extern MQTTPROTOCOL_API CMQTTProtocol_Parse m_Parse;
extern MQTTPROTOCOL_API CMQTTProtocol_Packet m_Packet;

#endif /* __cplusplus */

#endif /* MQTTPROTOCOL_H */
