// The forms a record of a session's queue takes, named, and the one place that tells them apart.
//
// The framing is a state machine whose state is the form of the queue's last record: Aligned (the
// queue is empty or ends with a Complete or ShortPingreq record: the next byte is a packet's first),
// or waiting in a HeaderPending or BodyPending record. docs/receive-states.md has the transitions.
#pragma once

#include "MQTTProtocol.h"

namespace mqttprotocol {

enum class RecordForm
{
    // Whole, with its body in a delivery block: handed out by Recv.
    Complete,
    // A PINGREQ whose two bytes were all of an input: whole, with no block at all.
    ShortPingreq,
    // Fewer than 4 bytes of a packet so far, so its fixed header cannot be decoded yet; they wait in
    // a buffer of 3 bytes. nPktLen is 4, nMsgLen the bytes held.
    HeaderPending,
    // The fixed header is decoded, the packet is not all here. nPktLen is the packet's size, nMsgLen
    // the bytes received so far (fixed header included). Its buffer, of PendingCapacity(nMsgLen,
    // nPktLen) bytes, holds the body bytes so far at its start and the fixed header's size in its last
    // byte: the header itself is not needed again, since the first byte is in st_FixedHeader and the
    // body's length is the packet's size less the header's.
    BodyPending,
};

inline RecordForm FormOf(const MQTTPROTOCOL_MSGBUFFER& record)
{
    if (!record.bHeaderReady) {
        return RecordForm::HeaderPending;
    }
    if (!record.bPacketReady) {
        return RecordForm::BodyPending;
    }
    return record.ptszMsgBuffer == nullptr ? RecordForm::ShortPingreq : RecordForm::Complete;
}

// A record that Recv may not hand out yet; only the last record of a queue can be one.
inline bool IsPending(const MQTTPROTOCOL_MSGBUFFER& record)
{
    const RecordForm form = FormOf(record);
    return form == RecordForm::HeaderPending || form == RecordForm::BodyPending;
}

}  // namespace mqttprotocol
