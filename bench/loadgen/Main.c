/* mqtt_loadgen: publishes through an MQTT v5 broker on 127.0.0.1 and checks that every subscriber
 * receives every message exactly once and in order per publisher. See usage() below. */
#include "Loadgen.h"

#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char usage_text[] =
    "usage: mqtt_loadgen --port N [options]\n"
    "Publishes through an MQTT v5 broker on 127.0.0.1 and checks that every subscriber receives every\n"
    "message exactly once and in order per publisher. On success it prints one line,\n"
    "  loadgen: messages=N deliveries=N seconds=S deliveries_per_s=R median_us=L p99_us=L cpu_pct=C\n"
    "(cpu_pct: the generator's own CPU time over the run; near 100 it is the bottleneck) and exits 0.\n"
    "It exits 1 when a message is missing, repeated or out of order, the broker refuses or drops a\n"
    "connection, or the run times out (the reason on stderr), and 2 on bad options.\n"
    "  --port N            the broker's port (required); a refused connection is tried again for\n"
    "                      5 seconds, while the broker starts\n"
    "  --publishers N      publishing connections, each on topic lg/<pid>/<n> (1-500, default 1)\n"
    "  --subscribers N     connections subscribed to lg/<pid>/# (1-500, default 1)\n"
    "  --qos N             0, 1 or 2, for publications and subscriptions (default 0)\n"
    "  --size BYTES        payload size, 16-16777216 (default 32); its first 16 bytes carry the\n"
    "                      publisher, the sequence number and the send time\n"
    "  --count N           messages per publisher, 1-100000000 (default 100000)\n"
    "  --window N          messages in flight per publisher, 1-100 (default 100). A message is in\n"
    "                      flight until every subscriber has it and, at QoS 1 and 2, the broker has\n"
    "                      completed its flow with the publisher. 1: one message at a time\n"
    "  --timeout SECONDS   give up after this long, 1-3600 (default 60)\n"
    "  --fault drop|duplicate\n"
    "                      each publisher leaves out, or sends twice, the sequence number of its\n"
    "                      middle message: the run must then fail (a check of the checker)\n"
    "  --help              this text\n";

static int usage_error(const char* format, const char* value)
{
    fprintf(stderr, "mqtt_loadgen: ");
    fprintf(stderr, format, value);
    fprintf(stderr, "\nTry 'mqtt_loadgen --help'.\n");
    return 2;
}

static bool parse_number(const char* text, long lowest, long highest, long* value)
{
    char* end = NULL;
    *value = strtol(text, &end, 10);
    return *text != '\0' && *end == '\0' && *value >= lowest && *value <= highest;
}

enum
{
    OPT_PORT = 256,
    OPT_PUBLISHERS,
    OPT_SUBSCRIBERS,
    OPT_QOS,
    OPT_SIZE,
    OPT_COUNT,
    OPT_WINDOW,
    OPT_TIMEOUT,
    OPT_FAULT
};

typedef struct
{
    int option;
    long lowest;
    long highest;
} Range;

static const Range ranges[] = {
    {OPT_PORT, 1, 65535},     {OPT_PUBLISHERS, 1, 500},  {OPT_SUBSCRIBERS, 1, 500}, {OPT_QOS, 0, 2},
    {OPT_SIZE, 16, 16777216}, {OPT_COUNT, 1, 100000000}, {OPT_WINDOW, 1, 100},      {OPT_TIMEOUT, 1, 3600},
};

static void store(Options* options, int option, long value)
{
    switch (option) {
    case OPT_PORT:
        options->port = (int)value;
        break;
    case OPT_PUBLISHERS:
        options->publishers = (int)value;
        break;
    case OPT_SUBSCRIBERS:
        options->subscribers = (int)value;
        break;
    case OPT_QOS:
        options->qos = (int)value;
        break;
    case OPT_SIZE:
        options->size = (size_t)value;
        break;
    case OPT_COUNT:
        options->count = (uint32_t)value;
        break;
    case OPT_WINDOW:
        options->window = (int)value;
        break;
    case OPT_TIMEOUT:
        options->timeout_seconds = (int)value;
        break;
    }
}

/* 0 when the options are good, 1 after --help, 2 after an error (already reported). */
static int parse_options(int argc, char** argv, Options* options)
{
    static const struct option known[] = {
        {"port", required_argument, NULL, OPT_PORT},
        {"publishers", required_argument, NULL, OPT_PUBLISHERS},
        {"subscribers", required_argument, NULL, OPT_SUBSCRIBERS},
        {"qos", required_argument, NULL, OPT_QOS},
        {"size", required_argument, NULL, OPT_SIZE},
        {"count", required_argument, NULL, OPT_COUNT},
        {"window", required_argument, NULL, OPT_WINDOW},
        {"timeout", required_argument, NULL, OPT_TIMEOUT},
        {"fault", required_argument, NULL, OPT_FAULT},
        {"help", no_argument, NULL, 'h'},
        {NULL, 0, NULL, 0},
    };
    int option;
    while ((option = getopt_long(argc, argv, "", known, NULL)) != -1) {
        if (option == 'h') {
            fputs(usage_text, stdout);
            return 1;
        }
        if (option == OPT_FAULT) {
            if (strcmp(optarg, "drop") != 0 && strcmp(optarg, "duplicate") != 0) {
                return usage_error("--fault takes drop or duplicate, not '%s'", optarg);
            }
            options->fault = strcmp(optarg, "drop") == 0 ? FAULT_DROP : FAULT_DUPLICATE;
            continue;
        }
        if (option == '?') { /* getopt_long has said which */
            fputs("Try 'mqtt_loadgen --help'.\n", stderr);
            return 2;
        }
        const Range* range = &ranges[option - OPT_PORT];
        long value = 0;
        if (!parse_number(optarg, range->lowest, range->highest, &value)) {
            fprintf(stderr, "mqtt_loadgen: --%s takes a number from %ld to %ld, not '%s'\n",
                    known[option - OPT_PORT].name, range->lowest, range->highest, optarg);
            return 2;
        }
        store(options, option, value);
    }
    if (optind < argc) {
        return usage_error("unexpected argument '%s'", argv[optind]);
    }
    if (options->port == 0) {
        return usage_error("%s", "--port is required");
    }
    if (options->fault != FAULT_NONE && options->count < 2) {
        return usage_error("%s", "--fault needs --count 2 or more");
    }
    return 0;
}

int main(int argc, char** argv)
{
    Options options = {
        .publishers = 1, .subscribers = 1, .size = 32, .count = 100000, .window = 100, .timeout_seconds = 60};
    int parsed = parse_options(argc, argv, &options);
    if (parsed) {
        return parsed == 1 ? 0 : 2;
    }
    static Results results; /* the latency histogram is some tens of kilobytes */
    char message[256] = "";
    if (run_load(&options, &results, message, sizeof message) != 0) {
        fprintf(stderr, "mqtt_loadgen: FAILED: %s\n", message);
        return 1;
    }
    printf(
        "loadgen: messages=%llu deliveries=%llu seconds=%.3f deliveries_per_s=%.0f median_us=%.1f p99_us=%.1f "
        "cpu_pct=%.0f\n",
        (unsigned long long)results.messages, (unsigned long long)results.deliveries, results.seconds,
        (double)results.deliveries / results.seconds, latency_percentile_us(&results.latency, 0.5),
        latency_percentile_us(&results.latency, 0.99), 100 * results.cpu_seconds / results.seconds);
    return 0;
}
