// Scoped file creation mask.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

namespace kavro::mail {

/// Sets the process's umask and puts the old one back on every way out.
class UmaskGuard {
public:
    explicit UmaskGuard(mode_t mask) noexcept : old_(::umask(mask)) {}
    ~UmaskGuard() { ::umask(old_); }
    UmaskGuard(const UmaskGuard&) = delete;
    UmaskGuard& operator=(const UmaskGuard&) = delete;

private:
    mode_t old_;
};

}  // namespace kavro::mail
