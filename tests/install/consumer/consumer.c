/* A C11 host of the installed library. */
#include <MQTTProtocol.h>

#include <stdio.h>

int main(void)
{
    char packet[4];
    int length = 0;
    if (!MQTTProtocol_Packet_Header(packet, &length, 12, NULL, 0, 0) || length != 2) {
        fprintf(stderr, "PINGREQ not built: code 0x%llx\n", (unsigned long long)MQTTProtocol_GetLastError(NULL));
        return 1;
    }
    return 0;
}
