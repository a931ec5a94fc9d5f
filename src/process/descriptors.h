// Owners of file descriptors and pipes. They close in their destructors and say so when that fails: a descriptor that
// cannot be closed is reported instead of lost, unless another exception is already on its way. The standard containers
// end the process when an element's destructor throws: close explicitly before such a container goes.
#pragma once

namespace kavro {

/// One descriptor, or none (-1). Move-only.
class FdOwner {
public:
    FdOwner() noexcept = default;
    explicit FdOwner(int fd) noexcept : fd_(fd) {}
    FdOwner(FdOwner&& other) noexcept : fd_(other.release()) {}
    /// Closes what it holds without throwing, then takes over.
    FdOwner& operator=(FdOwner&& other) noexcept;
    FdOwner(const FdOwner&) = delete;
    FdOwner& operator=(const FdOwner&) = delete;
    /// Throws SystemError("close") unless an exception is propagating; then errno is kept.
    ~FdOwner() noexcept(false);

    int get() const noexcept { return fd_; }
    bool empty() const noexcept { return fd_ == -1; }
    /// Gives the descriptor up to the caller.
    int release() noexcept;
    /// Closes; the owner is empty afterwards in every case. Throws SystemError("close").
    void close();
    /// The same with a tag of the caller's.
    void close(const char* tag);
    /// Closes without throwing; returns close(2)'s result, 0 for an empty owner.
    int close_nothrow() noexcept;

protected:
    /// The same without a result; errno is kept.
    void closeQuietly() noexcept;

private:
    int fd_ = -1;
};

/// For functions that throw nothing: a close that fails at the end of the scope goes unnoticed, and errno is kept.
class QuietFdOwner : public FdOwner {
public:
    using FdOwner::FdOwner;
    QuietFdOwner(QuietFdOwner&&) noexcept = default;
    QuietFdOwner& operator=(QuietFdOwner&&) noexcept = default;
    ~QuietFdOwner() noexcept;
};

/// Both ends of a pipe. Closes the write end first.
class PipeOwner {
public:
    PipeOwner() noexcept = default;
    PipeOwner(PipeOwner&&) noexcept = default;
    PipeOwner& operator=(PipeOwner&&) noexcept = default;
    /// Throws SystemError("pipe read-end close") or SystemError("close") unless an exception is propagating.
    ~PipeOwner() noexcept(false);

    /// Makes a pipe, both ends close-on-exec and numbered above the standard streams. Throws SystemError(tag).
    void create(const char* tag);
    /// Closes the write end, then the read end; throws as the destructor does.
    void close();

    FdOwner& readEnd() noexcept { return read_; }
    FdOwner& writeEnd() noexcept { return write_; }

private:
    FdOwner read_;
    FdOwner write_;
};

/// Moves a descriptor out of 0 to 2, where the wiring of a child's standard streams would overwrite it. The result is
/// close-on-exec when it was moved. Throws SystemError(tag).
FdOwner aboveStandardStreams(FdOwner fd, const char* tag);

/// Sets O_NONBLOCK. Throws SystemError(tag).
void setNonBlocking(int fd, const char* tag);

}  // namespace kavro
