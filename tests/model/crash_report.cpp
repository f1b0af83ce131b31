#include "model/crash_report.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZELT_MODEL_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZELT_MODEL_SANITIZED 1
#endif
#ifdef ZELT_MODEL_SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif

namespace model_check {

namespace {

constexpr size_t kReplaySize = 1024;
constexpr int kSignals[] = {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};
constexpr int kSignalCount = sizeof kSignals / sizeof kSignals[0];

// Written by the running configuration, read by the handlers: a plain buffer, as a handler may only write(2).
char replay[kReplaySize];
struct sigaction previous[kSignalCount];

void writeReplay() {
    if (replay[0] == '\0') return;
    static const char kHead[] = "\nmodel: the process is dying in a configuration; replay it alone with:\n  ";
    ssize_t ignored = ::write(STDERR_FILENO, kHead, sizeof kHead - 1);
    ignored = ::write(STDERR_FILENO, replay, std::strlen(replay));
    ignored = ::write(STDERR_FILENO, "\n", 1);
    static_cast<void>(ignored);
}

void onSignal(int signal, siginfo_t* info, void* context) {
    writeReplay();
    for (int i = 0; i < kSignalCount; ++i) {
        if (kSignals[i] != signal) continue;
        // Hand over to whoever handled the signal before (a sanitizer), else die as the signal says.
        if ((previous[i].sa_flags & SA_SIGINFO) && previous[i].sa_sigaction) {
            previous[i].sa_sigaction(signal, info, context);
            return;
        }
        if (previous[i].sa_handler != SIG_DFL && previous[i].sa_handler != SIG_IGN) {
            previous[i].sa_handler(signal);
            return;
        }
    }
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void setReplay(const QString& text) {
    const QByteArray bytes = text.toLocal8Bit();
    const size_t length = std::min(static_cast<size_t>(bytes.size()), kReplaySize - 1);
    std::memcpy(replay, bytes.constData(), length);
    replay[length] = '\0';
}

}  // namespace

void installCrashReport() {
    static bool installed = false;
    if (installed) return;
    installed = true;
    for (int i = 0; i < kSignalCount; ++i) {
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_sigaction = onSignal;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        sigaction(kSignals[i], &action, &previous[i]);
    }
#ifdef ZELT_MODEL_SANITIZED
    __sanitizer_set_death_callback(writeReplay);
#endif
}

RunningConfiguration::RunningConfiguration(const QString& text, std::chrono::milliseconds budget) {
    setReplay(text);
    watchdog = std::thread([this, budget] {
        std::unique_lock<std::mutex> lock(mutex);
        if (finished.wait_for(lock, budget, [this] { return done; })) return;
        std::fprintf(stderr, "\nmodel: a configuration ran longer than %lld ms\n",
                     static_cast<long long>(budget.count()));
        writeReplay();
        std::abort();
    });
}

RunningConfiguration::~RunningConfiguration() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    finished.notify_all();
    watchdog.join();
    replay[0] = '\0';
}

}  // namespace model_check
