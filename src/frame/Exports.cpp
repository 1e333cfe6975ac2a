// The C interface: each function forwards its arguments unchanged to the method of the same name
// on one of the two instances and returns its result; all checks and error reporting live there.
#include "MQTTProtocol.h"

extern "C" {

bool MQTTProtocol_Packet_Header(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byType, const char* lpszBody,
                                int nBodyLen, unsigned char byFlags)
{
    return m_Packet.MQTTProtocol_Packet_Header(ptszMsgBuffer, pInt_MsgLen, byType, lpszBody, nBodyLen, byFlags);
}

bool MQTTProtocol_Packet_REQConnect(char* ptszMsgBuffer, int* pInt_MsgLen, MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                    const char* lpszClientID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int nPropertyCount, const char* lpszClientUser, const char* lpszClientPass)
{
    return m_Packet.MQTTProtocol_Packet_REQConnect(ptszMsgBuffer, pInt_MsgLen, pSt_HDRConnect, lpszClientID,
                                                   pppSt_Property, nPropertyCount, lpszClientUser, lpszClientPass);
}

bool MQTTProtocol_Packet_REPConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byConnAckFlags,
                                    unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_REPConnect(ptszMsgBuffer, pInt_MsgLen, byConnAckFlags, byReasonCode,
                                                   pppSt_Property, nPropertyCount);
}

bool MQTTProtocol_Parse_Connect(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_HDRCONNNECT* pSt_HDRConnect,
                                MQTTPROTOCOL_USERINFO* pSt_UserInfo, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Connect(lpszMsgBuffer, nMsgLen, pSt_HDRConnect, pSt_UserInfo, pppSt_Property,
                                              pInt_PropertyCount);
}

bool MQTTProtocol_Parse_Connack(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Connack(lpszMsgBuffer, nMsgLen, pbyReasonCode, pppSt_Property,
                                              pInt_PropertyCount);
}

bool MQTTProtocol_Packet_DisConnect(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned char byReasonCode,
                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_DisConnect(ptszMsgBuffer, pInt_MsgLen, byReasonCode, pppSt_Property,
                                                   nPropertyCount);
}

bool MQTTProtocol_Parse_Disconnect(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                   MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Disconnect(lpszMsgBuffer, nMsgLen, pbyReasonCode, pppSt_Property,
                                                 pInt_PropertyCount);
}

bool MQTTProtocol_Packet_REQPublish(char* ptszMsgBuffer, int* pInt_MsgLen, const char* lpszTopicName,
                                    const char* lpszPayload, int nPayloadLen, unsigned short wMsgID,
                                    MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_REQPublish(ptszMsgBuffer, pInt_MsgLen, lpszTopicName, lpszPayload, nPayloadLen,
                                                   wMsgID, pppSt_Property, nPropertyCount);
}

bool MQTTProtocol_Packet_REPPublish(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                    unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                    int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_REPPublish(ptszMsgBuffer, pInt_MsgLen, wMsgID, byReasonCode, pppSt_Property,
                                                   nPropertyCount);
}

bool MQTTProtocol_Parse_Publish(const char* lpszMsgBuffer, int nMsgLen, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                                char* ptszTopicName, unsigned short* pwMsgID, char* ptszPayload, int* pInt_PayloadLen,
                                MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Publish(lpszMsgBuffer, nMsgLen, pSt_FixedHeader, ptszTopicName, pwMsgID,
                                              ptszPayload, pInt_PayloadLen, pppSt_Property, pInt_PropertyCount);
}

bool MQTTProtocol_Parse_Puback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                               unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                               int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Puback(lpszMsgBuffer, nMsgLen, pbyReasonCode, pwMsgID, pppSt_Property,
                                             pInt_PropertyCount);
}

bool MQTTProtocol_Packet_REQSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                      const char* lpszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                      MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_REQSubscribe(ptszMsgBuffer, pInt_MsgLen, wMsgID, lpszTopicFilter, pSt_SubOption,
                                                     pppSt_Property, nPropertyCount);
}

bool MQTTProtocol_Packet_REPComm(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                 unsigned char byReasonCode, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                 int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_REPComm(ptszMsgBuffer, pInt_MsgLen, wMsgID, byReasonCode, pppSt_Property,
                                                nPropertyCount);
}

bool MQTTProtocol_Parse_Subscribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                  char* ptszTopicFilter, MQTTPROTOCOL_HDRSUBSCRIBE* pSt_SubOption,
                                  MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property, int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Subscribe(lpszMsgBuffer, nMsgLen, pwMsgID, ptszTopicFilter, pSt_SubOption,
                                                pppSt_Property, pInt_PropertyCount);
}

bool MQTTProtocol_Parse_Suback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                               unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                               int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_Suback(lpszMsgBuffer, nMsgLen, pbyReasonCode, pwMsgID, pppSt_Property,
                                             pInt_PropertyCount);
}

bool MQTTProtocol_Packet_REQUNSubscribe(char* ptszMsgBuffer, int* pInt_MsgLen, unsigned short wMsgID,
                                        const char* lpszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                        int nPropertyCount)
{
    return m_Packet.MQTTProtocol_Packet_REQUNSubscribe(ptszMsgBuffer, pInt_MsgLen, wMsgID, lpszTopicFilter,
                                                       pppSt_Property, nPropertyCount);
}

bool MQTTProtocol_Parse_UNSubcribe(const char* lpszMsgBuffer, int nMsgLen, unsigned short* pwMsgID,
                                   char* ptszTopicFilter, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                   int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_UNSubcribe(lpszMsgBuffer, nMsgLen, pwMsgID, ptszTopicFilter, pppSt_Property,
                                                 pInt_PropertyCount);
}

bool MQTTProtocol_Parse_UNSuback(const char* lpszMsgBuffer, int nMsgLen, unsigned char* pbyReasonCode,
                                 unsigned short* pwMsgID, MQTTPROTOCOL_HDRPROPERTY*** pppSt_Property,
                                 int* pInt_PropertyCount)
{
    return m_Parse.MQTTProtocol_Parse_UNSuback(lpszMsgBuffer, nMsgLen, pbyReasonCode, pwMsgID, pppSt_Property,
                                               pInt_PropertyCount);
}

bool MQTTProtocol_Parse_Init(int nPoolCount) { return m_Parse.MQTTProtocol_Parse_Init(nPoolCount); }

bool MQTTProtocol_Parse_Destory(void) { return m_Parse.MQTTProtocol_Parse_Destory(); }

bool MQTTProtocol_Parse_Insert(const char* lpszClientAddr) { return m_Parse.MQTTProtocol_Parse_Insert(lpszClientAddr); }

bool MQTTProtocol_Parse_Delete(const char* lpszClientAddr) { return m_Parse.MQTTProtocol_Parse_Delete(lpszClientAddr); }

bool MQTTProtocol_Parse_Send(const char* lpszClientAddr, const char* lpszMsgBuffer, int nMsgLen)
{
    return m_Parse.MQTTProtocol_Parse_Send(lpszClientAddr, lpszMsgBuffer, nMsgLen);
}

bool MQTTProtocol_Parse_Recv(const char* lpszClientAddr, MQTTPROTOCOL_FIXEDHEADER* pSt_FixedHeader,
                             char** pptszMsgBuffer, int* pInt_MsgLen)
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

bool MQTTProtocol_Parse_BodyMode(int nBodyMode) { return m_Parse.MQTTProtocol_Parse_BodyMode(nBodyMode); }

}  // extern "C"
