// The working directory, remembered for a scope. It is held by a descriptor and not by its path: that also finds back
// to a directory that was renamed or removed meanwhile, or whose path is longer than the system's limit.
#pragma once

#include "process/descriptors.h"

namespace kavro {

/// Remembers the working directory and goes back to it in the destructor, which keeps errno.
class WorkingDirectoryScope {
public:
    /// Remembers; remembered() tells whether that worked, errno why not.
    WorkingDirectoryScope() noexcept;
    WorkingDirectoryScope(const WorkingDirectoryScope&) = delete;
    WorkingDirectoryScope& operator=(const WorkingDirectoryScope&) = delete;
    ~WorkingDirectoryScope();

    bool remembered() const noexcept { return !origin_.empty(); }
    /// Changes into `path`. False, with errno and the working directory as it was, on failure and where nothing is
    /// remembered.
    bool enter(const char* path) noexcept;
    /// The same for an open directory.
    bool enter(int directory) noexcept;
    /// Goes back now. False with errno on failure; the destructor then does not try again.
    bool restore() noexcept;
    /// Forgets the remembered directory: the process stays where it is.
    void release() noexcept;

private:
    FdOwner origin_;
};

}  // namespace kavro
