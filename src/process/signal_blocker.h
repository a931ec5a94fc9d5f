// Scoped change of the signal mask.
#pragma once

#include <csignal>
#include <initializer_list>

namespace kavro {

/// Blocks signals for its lifetime, then puts the former mask back.
class SigBlocker {
public:
    /// Throws SystemError("get sigprocmask"), ("sigaddset") or ("set sigprocmask").
    explicit SigBlocker(std::initializer_list<int> signals);
    SigBlocker(const SigBlocker&) = delete;
    SigBlocker& operator=(const SigBlocker&) = delete;
    /// Throws SystemError("restore sigprocmask") unless an exception is propagating; then errno is kept.
    ~SigBlocker() noexcept(false);

private:
    sigset_t saved_;
};

}  // namespace kavro
