// Handlers instead of a mask: a program that is run does not inherit them, and a mask it would.
#include "process/end_signals.h"

#include <pthread.h>

#include <csignal>

#include "process/retry.h"

namespace kavro::process {

namespace {

struct EndSignal {
    int number;
    struct sigaction former {};
    volatile std::sig_atomic_t came = 0;
};

EndSignal endSignals[] = {{SIGHUP}, {SIGINT}, {SIGTERM}};
bool deferred = false;

void mark(int number) {
    for (EndSignal& signal : endSignals) {
        if (signal.number == number) {
            signal.came = 1;
        }
    }
}

void giveBack() {
    if (!deferred) {
        return;
    }
    for (const EndSignal& signal : endSignals) {
        ::sigaction(signal.number, &signal.former, nullptr);
    }
    deferred = false;
}

}  // namespace

void deferEndSignals() {
    if (deferred) {
        return;
    }
    static const int registered = ::pthread_atfork(nullptr, nullptr, giveBack);
    if (registered != 0) {
        throw SystemError("pthread_atfork", registered);
    }
    for (EndSignal& signal : endSignals) {
        checkedCall("sigaction", [&] { return ::sigaction(signal.number, nullptr, &signal.former); });
    }
    deferred = true;
    struct sigaction action {};
    action.sa_handler = mark;
    action.sa_flags = SA_RESTART;
    for (const EndSignal& signal : endSignals) {
        if (signal.former.sa_handler != SIG_IGN) {
            checkedCall("sigaction", [&] { return ::sigaction(signal.number, &action, nullptr); });
        }
    }
}

bool endSignalsDeferred() noexcept {
    return deferred;
}

void actOnEndSignals() noexcept {
    giveBack();
    for (EndSignal& signal : endSignals) {
        if (signal.came != 0) {
            signal.came = 0;
            ::raise(signal.number);
        }
    }
}

}  // namespace kavro::process
