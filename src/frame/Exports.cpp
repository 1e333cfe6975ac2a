// The C interface: each function forwards its arguments unchanged to the method of the same name
// on one of the two instances and returns its result; all checks and error reporting live there.
#include "MQTTProtocol.h"

extern "C" {

bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType, const char* lpszBody,
                                int nBodyLen, unsigned char byFlags)
{
    return m_Packet.MQTTProtocol_Packet_Header(ptszMsgBuffer, pInt_MsgLen, byType, lpszBody, nBodyLen, byFlags);
}

bool MQTTProtocol_Parse_Init(int nPoolCount) { return m_Parse.MQTTProtocol_Parse_Init(nPoolCount); }

bool MQTTProtocol_Parse_Destory(void) { return m_Parse.MQTTProtocol_Parse_Destory(); }

bool MQTTProtocol_Parse_Insert(const char* lpszClientAddr) { return m_Parse.MQTTProtocol_Parse_Insert(lpszClientAddr); }

bool MQTTProtocol_Parse_Delete(const char* lpszClientAddr) { return m_Parse.MQTTProtocol_Parse_Delete(lpszClientAddr); }

bool MQTTProtocol_Parse_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen)
{
    return m_Parse.MQTTProtocol_Parse_Send(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

bool MQTTProtocol_Parse_Recv(const char* lpszClientAddr, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader, char** pptszMsgBuffer,
                             int* pInt_MsgLen)
{
    return m_Parse.MQTTProtocol_Parse_Recv(lpszClientAddr, pSt_FixedHeader, pptszMsgBuffer, pInt_MsgLen);
}

bool MQTTProtocol_Parse_GetPool(int nPoolIndex, TAVRIN_HOPPER_TASKEVENT*** pppSt_ListClient, int* pInt_ListCount)
{
    return m_Parse.MQTTProtocol_Parse_GetPool(nPoolIndex, pppSt_ListClient, pInt_ListCount);
}

bool MQTTProtocol_Parse_WaitEvent(int nPoolIndex, int nTimeout)
{
    return m_Parse.MQTTProtocol_Parse_WaitEvent(nPoolIndex, nTimeout);
}

bool MQTTProtocol_Parse_ActiveEvent(int nPoolIndex) { return m_Parse.MQTTProtocol_Parse_ActiveEvent(nPoolIndex); }

}  // extern "C"
