#include "plugin/device_health.h"

#include <algorithm>

void DeviceHealth::recordResponse(double ms) {
    lastResponseMs = ms;
    maxResponseMs = std::max(maxResponseMs, ms);
    recent[static_cast<size_t>(recentNext)] = ms;
    recentNext = (recentNext + 1) % kRecentResponses;
    recentCount = std::min(recentCount + 1, kRecentResponses);
}

double DeviceHealth::averageResponseMs() const {
    if (recentCount == 0) return 0;
    double sum = 0;
    for (int i = 0; i < recentCount; ++i) sum += recent[static_cast<size_t>(i)];
    return sum / recentCount;
}
