// What the scopes change is put back in their destructors, by sigprocmask(2) and sigaction(2).
#include "process/signal_blocker.h"

#include <exception>

#include "process/retry.h"

namespace kavro {

namespace {

void setMask(const sigset_t& mask) {
    checkedCall("set sigprocmask", [&] { return ::sigprocmask(SIG_SETMASK, &mask, nullptr); });
}

}  // namespace

SigMaskKeeper::SigMaskKeeper() : saved_{} {
    checkedCall("get sigprocmask", [this] { return ::sigprocmask(SIG_BLOCK, nullptr, &saved_); });
}

SigMaskKeeper::~SigMaskKeeper() noexcept(false) {
    const int former = errno;
    const int result = retryInterrupted([this] { return ::sigprocmask(SIG_SETMASK, &saved_, nullptr); });
    if (std::uncaught_exceptions() > 0) {
        errno = former;
    } else if (result == -1) {
        throw SystemError("restore sigprocmask", errno);
    }
}

SigBlocker::SigBlocker(std::initializer_list<int> signals) {
    sigset_t mask = saved();
    for (const int signal : signals) {
        checkedCall("sigaddset", [&] { return ::sigaddset(&mask, signal); });
    }
    setMask(mask);
}

SigUnblocker::SigUnblocker(std::initializer_list<int> signals) {
    sigset_t mask = saved();
    for (const int signal : signals) {
        checkedCall("sigdelset", [&] { return ::sigdelset(&mask, signal); });
    }
    setMask(mask);
}

SigIgnorer::SigIgnorer(int signal) : signal_(signal) {
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    checkedCall("sigaction", [&] { return ::sigaction(signal_, &ignore, &former_); });
}

SigIgnorer::~SigIgnorer() {
    const ErrnoKeeper keeper;
    ::sigaction(signal_, &former_, nullptr);
}

}  // namespace kavro
