// Closing of descriptors, and the making of pipes.
#include "process/descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <exception>
#include <utility>

#include "process/retry.h"

namespace kavro {

namespace {

int closeDescriptor(int fd) noexcept {
    bool interrupted = false;
    int result = ::close(fd);
    while (result == -1 && errno == EINTR) {
        interrupted = true;
        result = ::close(fd);
    }
    // Linux gives the descriptor up even when close(2) was interrupted: the second try then finds nothing to close.
    return interrupted && result == -1 && errno == EBADF ? 0 : result;
}

}  // namespace

FdOwner& FdOwner::operator=(FdOwner&& other) noexcept {
    if (this != &other) {
        close_nothrow();
        fd_ = other.release();
    }
    return *this;
}

FdOwner::~FdOwner() noexcept(false) {
    if (std::uncaught_exceptions() > 0) {
        closeQuietly();
    } else {
        close();
    }
}

QuietFdOwner::~QuietFdOwner() noexcept {
    closeQuietly();
}

void FdOwner::closeQuietly() noexcept {
    const ErrnoKeeper keeper;
    close_nothrow();
}

int FdOwner::release() noexcept {
    return std::exchange(fd_, -1);
}

void FdOwner::close() {
    close("close");
}

void FdOwner::close(const char* tag) {
    if (close_nothrow() == -1) {
        throw SystemError(tag, errno);
    }
}

int FdOwner::close_nothrow() noexcept {
    return empty() ? 0 : closeDescriptor(release());
}

PipeOwner::~PipeOwner() noexcept(false) {
    // While an exception propagates the members close quietly by themselves, the write end first.
    if (std::uncaught_exceptions() == 0) {
        close();
    }
}

void PipeOwner::create(const char* tag) {
    std::array<int, 2> ends{};
    checkedCall(tag, [&] { return ::pipe2(ends.data(), O_CLOEXEC); });
    FdOwner read(ends[0]);
    FdOwner write(ends[1]);
    read_ = aboveStandardStreams(std::move(read), tag);
    write_ = aboveStandardStreams(std::move(write), tag);
}

void PipeOwner::close() {
    write_.close();
    read_.close("pipe read-end close");
}

FdOwner aboveStandardStreams(FdOwner fd, const char* tag) {
    if (fd.get() < 0 || fd.get() > STDERR_FILENO) {
        return fd;
    }
    return FdOwner(checkedCall(tag, [&] { return ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1); }));
}

void setNonBlocking(int fd, const char* tag) {
    const int flags = checkedCall(tag, [&] { return ::fcntl(fd, F_GETFL); });
    checkedCall(tag, [&] { return ::fcntl(fd, F_SETFL, flags | O_NONBLOCK); });
}

}  // namespace kavro
