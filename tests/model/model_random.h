#pragma once
// A small seeded random source (SplitMix64). Its own arithmetic rather than a standard distribution, so that
// a seed makes the same configuration with every standard library and on every architecture the suite runs
// on.

#include <cstdint>
#include <utility>
#include <vector>

namespace model_check {

class Random {
public:
    explicit Random(uint64_t seed) : state(seed) {}

    uint64_t next() {
        state += kIncrement;
        uint64_t z = state;
        z = (z ^ (z >> kShift1)) * kMix1;
        z = (z ^ (z >> kShift2)) * kMix2;
        return z ^ (z >> kShift3);
    }

    // A number in [0, bound); 0 for a bound of 0. The bias of the modulo is far below what a test notices.
    uint64_t below(uint64_t bound) { return bound == 0 ? 0 : next() % bound; }
    int between(int low, int high) {
        return low + static_cast<int>(below(static_cast<uint64_t>(high - low) + 1));
    }
    // True with a probability of percent / 100.
    bool percent(int percent) { return static_cast<int>(below(kHundred)) < percent; }

    template <typename T>
    const T& pick(const std::vector<T>& values) {
        return values[static_cast<size_t>(below(values.size()))];
    }

    // One of the choices, each as likely as its weight.
    template <typename T>
    const T& weighted(const std::vector<std::pair<int, T>>& choices) {
        int total = 0;
        for (const auto& choice : choices) total += choice.first;
        int roll = static_cast<int>(below(static_cast<uint64_t>(total)));
        for (const auto& choice : choices) {
            if (roll < choice.first) return choice.second;
            roll -= choice.first;
        }
        return choices.back().second;
    }

    template <typename T>
    void shuffle(std::vector<T>& values) {
        for (size_t i = values.size(); i > 1; --i)
            std::swap(values[i - 1], values[static_cast<size_t>(below(i))]);
    }

    // A second source that does not disturb this one's sequence beyond one draw: each thread of a concurrent
    // phase gets its own.
    Random split() { return Random(next() ^ kSplitSalt); }

private:
    static constexpr uint64_t kIncrement = 0x9E3779B97F4A7C15ULL;
    static constexpr uint64_t kMix1 = 0xBF58476D1CE4E5B9ULL;
    static constexpr uint64_t kMix2 = 0x94D049BB133111EBULL;
    static constexpr int kShift1 = 30;
    static constexpr int kShift2 = 27;
    static constexpr int kShift3 = 31;
    static constexpr uint64_t kHundred = 100;
    static constexpr uint64_t kSplitSalt = 0x5DEECE66DULL;

    uint64_t state;
};

}  // namespace model_check
