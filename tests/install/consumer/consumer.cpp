// A C++17 host of the installed library, using the class interface.
#include <MQTTProtocol.h>

#include <cstdio>

int main()
{
    int value = 0;
    int headerSize = 1;
    const char field[] = {'\x80', '\x01'};
    if (!m_Parse.MQTTProtocol_Parse_Length(field, 2, &value, &headerSize) || value != 128 || headerSize != 3) {
        std::fprintf(stderr, "remaining length not decoded\n");
        return 1;
    }
    return 0;
}
