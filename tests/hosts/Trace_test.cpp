#include "host/Trace.h"

#include <gtest/gtest.h>

namespace {

TEST(Trace, NamesOnlyTheFieldsAPacketHas)
{
    host::PacketTrace publish{"in", "127.0.0.1:4000#7 sensor", 3, 12U, "home/temp", 1, std::nullopt, 5U, 22};
    EXPECT_EQ(host::FormatTrace(publish),
              "in 127.0.0.1:4000#7 sensor PUBLISH id=12 topic=\"home/temp\" qos=1 payload=5B size=22B");
    host::PacketTrace puback{"out", "127.0.0.1:4000#7 sensor", 4, 12U, std::nullopt, std::nullopt, 0x10U, std::nullopt,
                             5};
    EXPECT_EQ(host::FormatTrace(puback), "out 127.0.0.1:4000#7 sensor PUBACK id=12 reason=0x10 size=5B");
    EXPECT_EQ(host::FormatTrace({"in", "c", 12, {}, {}, {}, {}, {}, 2}), "in c PINGREQ size=2B");
}

}  // namespace
