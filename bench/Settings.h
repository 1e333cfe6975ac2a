// How much each benchmark does: the full run uses the workloads' own packet counts; the quick run
// fewer packets, so that its figures per packet stay comparable.
#pragma once

namespace bench {

struct Settings
{
    bool quick = false;
    int smallPackets = 1000000;  // W1, W3, W4
    int largePackets = 50000;    // W2
    // The literal design costs about 130 us a packet from the heap and several ms from fresh
    // mappings: it is measured on the workloads' first packets only.
    int literalHeapSample = 20000;
    int literalMappedSample = 200;
    int repetitions = 3;
    double codecMinSeconds = 0.3;
    int scalePackets = 1000000;  // per client count, at least two pieces for each client
    int scaleRepetitions = 3;
    int threadedPackets = 1000000;
    int largePublishes = 10;   // the 10 MiB packet, in each repetition
    int burstRepetitions = 3;  // 50,000 PINGREQs in one call
};

inline Settings SettingsFor(bool quick)
{
    Settings settings;
    if (quick) {
        settings.quick = true;
        settings.smallPackets = 20000;
        settings.repetitions = 9;
        settings.largePackets = 2000;
        settings.literalHeapSample = 500;
        settings.literalMappedSample = 20;
        settings.codecMinSeconds = 0.05;
        settings.scalePackets = 20000;
        settings.threadedPackets = 20000;
        settings.largePublishes = 3;
        settings.burstRepetitions = 1;
    }
    return settings;
}

// Registering each group of benchmarks.
void RegisterWorkloads(const Settings& settings);
void RegisterCodec(const Settings& settings);
void RegisterScale(const Settings& settings);

}  // namespace bench
