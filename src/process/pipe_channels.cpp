// Non-blocking writing and reading of a pipeline's streams.
#include "process/pipe_channels.h"

#include <fcntl.h>
#include <unistd.h>

#include "process/retry.h"

namespace kavro::process {

namespace {

constexpr int kChunkSize = 1024;
/// What a pipe of output holds, where the system lets it.
constexpr int kPipeCapacity = 1 << 20;
/// Chunks that one channel may take before the others get their turn.
constexpr int kChunksPerTurn = kPipeCapacity / kChunkSize;

}  // namespace

InputFeed::InputFeed(FdOwner& pipe, const Producer& producer)
    : pipe_(pipe), producer_(producer), exhausted_(producer.empty()) {
    if (!pipe_.empty()) {
        setNonBlocking(pipe_.get(), "fcntl");
    }
}

void InputFeed::prepare() {
    if (pipe_.empty() || wantsToWrite()) {
        return;
    }
    if (!exhausted_) {
        buffer_.clear();
        written_ = 0;
        exhausted_ = !producer_(buffer_);
    }
    if (exhausted_ && !wantsToWrite()) {
        pipe_.close();
    }
}

void InputFeed::write() {
    std::size_t length = buffer_.size() - written_;
    for (;;) {
        const ssize_t count = retryInterrupted([&] { return ::write(pipe_.get(), buffer_.data() + written_, length); });
        if (count > 0) {
            written_ += static_cast<std::size_t>(count);
            return;
        }
        if (count == 0 || errno == EPIPE) {
            stop();
            return;
        }
        if (errno != EAGAIN || length == 1) {
            throw SystemError("write", errno);
        }
        // A pipe takes up to 4096 bytes wholly or not at all.
        length /= 2;
    }
}

void InputFeed::stop() {
    if (!pipe_.empty()) {
        refused_ = wantsToWrite() || !exhausted_;
        pipe_.close();
    }
}

OutputChannel::OutputChannel(FdOwner& pipe, const Consumer& consumer) : pipe_(pipe), consumer_(consumer) {
    setNonBlocking(pipe_.get(), "fcntl");
    ::fcntl(pipe_.get(), F_SETPIPE_SZ, kPipeCapacity);
}

void OutputChannel::serve() {
    for (int i = 0; i < kChunksPerTurn && readChunk() == Chunk::Full; ++i) {
    }
}

void OutputChannel::finish() {
    Chunk chunk = Chunk::Full;
    while (open() && chunk != Chunk::None) {
        chunk = readChunk();
    }
    pipe_.close();
}

OutputChannel::Chunk OutputChannel::readChunk() {
    chunk_.resize(kChunkSize);
    const ssize_t count = retryInterrupted([&] { return ::read(pipe_.get(), chunk_.data(), kChunkSize); });
    if (count == -1) {
        if (errno != EAGAIN) {
            throw SystemError("read", errno);
        }
        return Chunk::None;
    }
    if (count == 0) {
        pipe_.close();
        return Chunk::None;
    }
    chunk_.resize(static_cast<std::size_t>(count));
    taken_ += chunk_.size();
    if (!consumer_.empty()) {
        consumer_(chunk_);
    }
    return chunk_.size() == kChunkSize ? Chunk::Full : Chunk::Last;
}

}  // namespace kavro::process
