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

/* ---------------------------------------------------------------------------------------------
 * Packet bodies
 *
 * Builders: ptszMsgBuffer receives the body, *pInt_MsgLen is SET to its size (not added to). The
 * caller provides room for the whole body: the fields it passes plus one property block, which is at
 * most 256 bytes beyond the widest raw property value (see CMQTTProtocol_Packet::
 * MQTTProtocol_Packet_Property). The property list (pppSt_Property, nPropertyCount) is read as the
 * block builder reads it and ITS TWO- AND FOUR-BYTE VALUES ARE SWAPPED TO NETWORK ORDER IN PLACE, so a
 * list must not be shared between concurrent calls nor reused without restoring it. Strings are
 * terminated and must not be null where they are written. Each builder fails with
 * MQTTPROTOCOL_ERR_PACKET_ARGUMENT, writing nothing, when ptszMsgBuffer or pInt_MsgLen is null; no
 * other argument is checked, and nothing else makes it fail.
 *
 * Decoders: lpszMsgBuffer is a body as MQTTProtocol_Parse_Recv hands it out, inside its zero-filled
 * block of 0xA00000 bytes. The decoders trust every length prefix and read fixed positions whatever
 * nMsgLen says, so a short or hostile body is read past its end into that block (zeros, well
 * defined); a body from anywhere else must be readable as far as its prefixes reach. No terminator is
 * added to any copied string: zero every output first. An out-parameter of a field the body does not
 * carry is left as it was; when the property block is empty, the list out and the count out are not
 * written, so set the list pointer to null and the count to 0 before the call. A decoded list is the
 * caller's (release it with Keel_OperatorMemory_Free). Out-pointers are not checked: pass valid ones.
 * Each decoder fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT, writing no output, when lpszMsgBuffer is
 * null; only MQTTProtocol_Parse_Connect has a further failure.
 * ------------------------------------------------------------------------------------------- */

/* CONNECT body: the ten header bytes, the property block, the client identifier, then the user name
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
/* CONNACK body: byConnAckFlags (bit 0 session present) and byReasonCode as given, then the property
 * block; 3 bytes without properties. Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or
 * pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REPConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byConnAckFlags,
                                                     unsigned char byReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/* Decodes a CONNECT body. nMsgLen is not used. Copies the ten header bytes into *pSt_HDRConnect and
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
/* Decodes a CONNACK body. nMsgLen is not used. Byte 0, the acknowledge flags, is dropped (the
 * session-present bit is not handed out); *pbyReasonCode = byte 1, not judged; properties from
 * byte 2. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Connack(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                 MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);

/* DISCONNECT body: byReasonCode as given, then the property block, always (2 bytes at least).
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_DisConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/* Decodes a DISCONNECT body. nMsgLen is not used: bytes 0 (*pbyReasonCode) and 1 (property length)
 * are always read, so the standard's empty body is not recognised. Fails with
 * MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Disconnect(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);

/* PUBLISH body: lpszTopicName (not null) as its length cut to 16 bits and that many bytes; wMsgID
 * big-endian only when it is non-zero (the value alone decides: pass 0 for QoS 0 and non-zero for
 * QoS 1 and 2, and give the matching flags to MQTTProtocol_Packet_Header); the property block; then
 * nPayloadLen bytes of lpszPayload (read only when nPayloadLen > 0).
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQPublish(char* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszTopicName,
                                                     const char* lpszPayload, int nPayloadLen, unsigned short wMsgID,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/* The body shared by PUBACK, PUBREC, PUBREL and PUBCOMP (the type is what the caller gives to
 * MQTTProtocol_Packet_Header): wMsgID big-endian only when non-zero, byReasonCode, then the property
 * block unless nPropertyCount is negative (identifier and reason code only, the standard's short
 * form). Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REPPublish(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                     unsigned char byReasonCode,
                                                     MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/* Decodes a PUBLISH body of nMsgLen bytes (the packet's remaining length). Copies the topic into
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
/* Decodes a PUBACK, PUBREC, PUBREL or PUBCOMP body (note: reason code before identifier here).
 * *pwMsgID = bytes 0-1, *pbyReasonCode = byte 2 WHATEVER nMsgLen IS (a two-byte body hands out the
 * byte behind it, not the standard's implied 0x00); the property block from byte 3 only when nMsgLen
 * is greater than 3. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Puback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                int* pInt_PropertyCount);

/* SUBSCRIBE body with one topic filter: wMsgID big-endian (0 included), the property block,
 * lpszTopicFilter (not null) as its length cut to 16 bits and that many bytes, then the one byte of
 * *pSt_SubOption (not null) as it is. Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer
 * or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                       const char* lpszTopicFilter,
                                                       MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                                       MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
/* SUBACK or UNSUBACK body with one reason code: wMsgID big-endian only when non-zero (an identifier
 * of 0 is left out, and MQTTProtocol_Parse_UNSuback then does not read it back as 0), the property
 * block, always (a count below 1 gives the byte 0), then byReasonCode.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REPComm(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                  unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                  int nPropertyCount);
/* Decodes a SUBSCRIBE body. nMsgLen is not used. *pwMsgID = bytes 0-1; the properties; the first
 * topic filter into ptszTopicFilter, which must hold 65,535 bytes; its options byte into
 * *pSt_SubOption. Further topic filters are ignored. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when
 * lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Subscribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                                   char* ptszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                                   MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
/* Decodes a SUBACK body by this library's own positions, which are not the wire layout's.
 * nMsgLen is not used. *pwMsgID = bytes 0-1, but the property length is then read from byte 0 (the
 * identifier's high byte) and the properties from byte 1, and *pbyReasonCode is the byte behind them:
 * for an identifier below 256 no property is decoded and the reason code is the identifier's low byte
 * (00 07 00 02 yields identifier 7 and reason code 0x07). Use MQTTProtocol_Parse_UNSuback to read the
 * layout MQTTProtocol_Packet_REPComm writes. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when
 * lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_Suback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                int* pInt_PropertyCount);

/* UNSUBSCRIBE body with one topic filter: wMsgID big-endian (0 included), the property block, then
 * lpszTopicFilter (not null) as its length cut to 16 bits and that many bytes; no options byte.
 * Fails with MQTTPROTOCOL_ERR_PACKET_ARGUMENT when ptszMsgBuffer or pInt_MsgLen is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                                         const char* lpszTopicFilter,
                                                         MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                         int nPropertyCount);
/* Decodes an UNSUBSCRIBE body. nMsgLen is not used. *pwMsgID = bytes 0-1; the properties; the first
 * topic filter into ptszTopicFilter, which must hold 65,535 bytes. Further filters are ignored.
 * Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                                    char* ptszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                    int* pInt_PropertyCount);
/* Decodes an UNSUBACK body. nMsgLen is not used. *pwMsgID = bytes 0-1 (always expected: a body built
 * with identifier 0 is misread), the property length at byte 2 and the properties, then the first
 * reason code into *pbyReasonCode; later codes are ignored. Fails with MQTTPROTOCOL_ERR_PARSE_ARGUMENT
 * when lpszMsgBuffer is null. */
MQTTPROTOCOL_API bool MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                                  unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                                  int* pInt_PropertyCount);

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

    /* See the C function of the same name (each packet builder below). */
    bool MQTTProtocol_Packet_REQConnect(char* ptszMsgBuffer, int* pInt_MsgLen, MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                        const char* lpszClientID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount, const char* lpszClientUser, const char* lpszClientPass);
    bool MQTTProtocol_Packet_REPConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byConnAckFlags,
                                        unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount);
    bool MQTTProtocol_Packet_DisConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byReasonCode,
                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
    bool MQTTProtocol_Packet_REQPublish(char* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszTopicName,
                                        const char* lpszPayload, int nPayloadLen, unsigned short wMsgID,
                                        MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
    bool MQTTProtocol_Packet_REPPublish(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                        unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount);
    bool MQTTProtocol_Packet_REQSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                          const char* lpszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                          MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount);
    bool MQTTProtocol_Packet_REPComm(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                     unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                     int nPropertyCount);
    bool MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                            const char* lpszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
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

    /* See the C function of the same name (each packet decoder below). */
    bool MQTTProtocol_Parse_Connect(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                    MQTTPROTOCOL_USERINFO* pSt_UserInfo, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_Connack(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_Disconnect(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                       MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_Publish(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                                    char* ptszTopicName, unsigned short* pwMsgID, char* ptszPayload,
                                    int* pInt_PayloadLen, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_Puback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                   unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                   int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_Subscribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                      char* ptszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                      MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_Suback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                   unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                   int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                       char* ptszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                       int* pInt_PropertyCount);
    bool MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                     unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                     int* pInt_PropertyCount);
};

/* The two process-wide instances behind the C functions. */
extern MQTTPROTOCOL_API CMQTTProtocol_Parse m_Parse;
extern MQTTPROTOCOL_API CMQTTProtocol_Packet m_Packet;

#endif /* __cplusplus */

#endif /* MQTTPROTOCOL_H */
