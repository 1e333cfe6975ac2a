// The two process-wide instances, in one translation unit so that their order is fixed:
// the parser is constructed first and destroyed last.
#include "MQTTProtocol.h"

CMQTTProtocol_Parse m_Parse;
CMQTTProtocol_Packet m_Packet;
