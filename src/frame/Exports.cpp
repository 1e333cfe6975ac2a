// The C interface: each function forwards its arguments unchanged to the method of the same name
// on one of the two instances and returns its result; all checks and error reporting live there.
#include "MQTTProtocol.h"

extern "C" {

bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType, const char* lpszBody,
                                int nBodyLen, unsigned char byFlags)
{
    return m_Packet.MQTTProtocol_Packet_Header(ptszMsgBuffer, pInt_MsgLen, byType, lpszBody, nBodyLen, byFlags);
}

}  // extern "C"
