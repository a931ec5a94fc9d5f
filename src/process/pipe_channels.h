// The parent's ends of a pipeline's streams: what is fed to the first command, and what is taken from the others.
#pragma once

#include <cstddef>
#include <vector>

#include "process/descriptors.h"
#include "process/pipe.h"

namespace kavro::process {

/// Input of the first command. `pipe` and `producer` must outlive it; an empty `pipe` makes it do nothing.
class InputFeed {
public:
    /// Makes the pipe non-blocking. Throws SystemError("fcntl").
    InputFeed(FdOwner& pipe, const Producer& producer);

    /// To be called before each wait: asks the producer when nothing is left to write, and closes the pipe when nothing
    /// will follow.
    void prepare();
    bool wantsToWrite() const noexcept { return !pipe_.empty() && written_ < buffer_.size(); }
    int fd() const noexcept { return pipe_.get(); }
    /// Writes what fits. Throws SystemError("write"), but not because nobody reads any more.
    void write();
    /// Ends the feeding: the reader is gone.
    void stop();
    /// There was input that the reader did not wait for.
    bool refused() const noexcept { return refused_; }

private:
    FdOwner& pipe_;
    const Producer& producer_;
    std::vector<char> buffer_;
    std::size_t written_ = 0;
    bool exhausted_;
    bool refused_ = false;
};

/// One stream that commands write to. `pipe` and `consumer` must outlive it.
class OutputChannel {
public:
    /// Makes the pipe non-blocking and large. Throws SystemError("fcntl").
    OutputChannel(FdOwner& pipe, const Consumer& consumer);

    bool open() const noexcept { return !pipe_.empty(); }
    int fd() const noexcept { return pipe_.get(); }
    /// Hands over about a pipe's capacity of what is there; closes at end of file. Throws SystemError("read").
    void serve();
    /// More came than small outputs have, and more may follow.
    bool streams() const noexcept { return open() && taken_ > kSmallOutput; }
    /// Hands over all that is there, then closes, also when some process still could write.
    void finish();

private:
    enum class Chunk { Full, Last, None };
    Chunk readChunk();

    static constexpr std::size_t kSmallOutput = 65536;

    FdOwner& pipe_;
    const Consumer& consumer_;
    std::size_t taken_ = 0;  ///< bytes
    std::vector<char> chunk_;
};

}  // namespace kavro::process
