#pragma once
// What every benchmark needs besides its own scenario: medians, the command line that reproduces a run,
// process figures from /proc, and a plain libmodbus client that replays requests a simulator logged.

#include <dirent.h>
#include <modbus.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/sim/simulator.h"

namespace bench {

struct Summary {
    double median = 0;
    double min = 0;
    double max = 0;
};

inline Summary summarize(std::vector<double> samples) {
    Summary summary;
    if (samples.empty()) return summary;
    std::sort(samples.begin(), samples.end());
    const size_t middle = samples.size() / 2;
    summary.median = samples.size() % 2 ? samples[middle] : (samples[middle - 1] + samples[middle]) / 2.0;
    summary.min = samples.front();
    summary.max = samples.back();
    return summary;
}

inline double elapsedUs(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// CPU time of the calling thread only, so that simulator threads in the same process do not count.
inline double threadCpuUs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1e6 + now.tv_nsec / 1e3;
}

inline void printCommand(int argc, char** argv) {
    std::string command;
    for (int i = 0; i < argc; ++i) {
        if (i) command += ' ';
        command += argv[i];
    }
    std::printf("Reproduce: %s\n", command.c_str());
}

// Reads "--name value" from the command line; the fallback when it is missing or not a positive number.
inline int intOption(int argc, char** argv, const char* name, int fallback) {
    for (int i = 1; i + 1 < argc; ++i) {
        if (std::strcmp(argv[i], name) == 0) {
            const int value = std::atoi(argv[i + 1]);
            return value > 0 ? value : fallback;
        }
    }
    return fallback;
}

inline bool hasFlag(int argc, char** argv, const char* name) {
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], name) == 0) return true;
    return false;
}

// A "Key:   1234 kB" line of /proc/self/status, in KiB; -1 when missing.
inline long statusField(const char* key) {
    FILE* file = std::fopen("/proc/self/status", "r");
    if (!file) return -1;
    char line[256];
    long value = -1;
    const size_t keyLength = std::strlen(key);
    while (std::fgets(line, sizeof(line), file)) {
        if (std::strncmp(line, key, keyLength) == 0 && line[keyLength] == ':') {
            value = std::atol(line + keyLength + 1);
            break;
        }
    }
    std::fclose(file);
    return value;
}

inline long rssKiB() {
    return statusField("VmRSS");
}
inline long peakRssKiB() {
    return statusField("VmHWM");
}
inline long threadCount() {
    return statusField("Threads");
}

inline long openDescriptors() {
    DIR* directory = opendir("/proc/self/fd");
    if (!directory) return -1;
    long count = 0;
    while (dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    closedir(directory);
    return count - 1;  // the directory's own descriptor
}

// A bare libmodbus client on a persistent connection that sends logged request PDUs unchanged and reads each
// confirmation without looking at it: the floor that any Modbus client pays for the same traffic.
class RawReplay {
public:
    explicit RawReplay(uint16_t port) : context(modbus_new_tcp("127.0.0.1", port)) {}
    ~RawReplay() {
        if (!context) return;
        modbus_close(context);
        modbus_free(context);
    }
    RawReplay(const RawReplay&) = delete;
    RawReplay& operator=(const RawReplay&) = delete;

    bool connect() { return context && modbus_connect(context) == 0; }

    bool replay(const std::vector<modbus_sim::RequestRecord>& requests) {
        uint8_t request[MODBUS_TCP_MAX_ADU_LENGTH];
        uint8_t answer[MODBUS_TCP_MAX_ADU_LENGTH];
        for (const modbus_sim::RequestRecord& record : requests) {
            // A raw request starts with the unit id; libmodbus adds the MBAP header.
            const int length = record.pdu.size() + 1;
            if (length > static_cast<int>(sizeof(request))) return false;
            request[0] = static_cast<uint8_t>(record.unit);
            std::memcpy(request + 1, record.pdu.constData(), record.pdu.size());
            if (modbus_send_raw_request(context, request, length) < 0) return false;
            if (modbus_receive_confirmation(context, answer) < 0) return false;
        }
        return true;
    }

private:
    modbus_t* context;
};

}  // namespace bench
