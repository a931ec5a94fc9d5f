// Scoped changes of the signal mask and of a signal's action.
#pragma once

#include <csignal>
#include <initializer_list>

namespace kavro {

/// Remembers the signal mask at construction and puts it back. The base of the two below.
class SigMaskKeeper {
public:
    SigMaskKeeper(const SigMaskKeeper&) = delete;
    SigMaskKeeper& operator=(const SigMaskKeeper&) = delete;

protected:
    /// Throws SystemError("get sigprocmask").
    SigMaskKeeper();
    /// Throws SystemError("restore sigprocmask") unless an exception is propagating; then errno is kept.
    ~SigMaskKeeper() noexcept(false);

    const sigset_t& saved() const noexcept { return saved_; }

private:
    sigset_t saved_;
};

/// Blocks signals for its lifetime, then puts the former mask back.
class SigBlocker : private SigMaskKeeper {
public:
    /// Throws SystemError("get sigprocmask"), ("sigaddset") or ("set sigprocmask").
    explicit SigBlocker(std::initializer_list<int> signals);
};

/// Lets signals through for its lifetime, then puts the former mask back.
class SigUnblocker : private SigMaskKeeper {
public:
    /// Throws SystemError("get sigprocmask"), ("sigdelset") or ("set sigprocmask").
    explicit SigUnblocker(std::initializer_list<int> signals);
};

/// Ignores one signal for its lifetime, then puts the former action back.
class SigIgnorer {
public:
    /// Throws SystemError("sigaction").
    explicit SigIgnorer(int signal);
    SigIgnorer(const SigIgnorer&) = delete;
    SigIgnorer& operator=(const SigIgnorer&) = delete;
    ~SigIgnorer();

private:
    int signal_;
    struct sigaction former_ {};
};

}  // namespace kavro
