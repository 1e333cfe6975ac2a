// The MQTT v5 reason codes the example hosts send or report, by name.
#pragma once

#include <string>

namespace host {

enum Reason : unsigned char
{
    kSuccess = 0x00,  // also: normal disconnection, granted QoS 0
    kGrantedQos1 = 0x01,
    kGrantedQos2 = 0x02,
    kNoMatchingSubscribers = 0x10,
    kNoSubscriptionExisted = 0x11,
    kUnspecifiedError = 0x80,
    kMalformedPacket = 0x81,
    kProtocolError = 0x82,
    kImplementationSpecificError = 0x83,
    kUnsupportedProtocolVersion = 0x84,
    kClientIdNotValid = 0x85,
    kServerBusy = 0x89,
    kBadAuthenticationMethod = 0x8C,
    kKeepAliveTimeout = 0x8D,
    kSessionTakenOver = 0x8E,
    kTopicFilterInvalid = 0x8F,
    kTopicNameInvalid = 0x90,
    kPacketIdNotFound = 0x92,
    kTopicAliasInvalid = 0x94,
    kPacketTooLarge = 0x95,
    kQuotaExceeded = 0x97,
    kSharedSubscriptionsNotSupported = 0x9E,
};

// The standard's name of each code above; "reason" for the others.
const char* ReasonName(unsigned char reason);
// The code in hex with its name: "0x8E (session taken over)".
std::string ReasonText(unsigned char reason);

}  // namespace host
