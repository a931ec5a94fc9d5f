// Reading of maildirsize: limits from its first line, usage as the sum of the other lines.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "process/retry.h"
#include "storage/maildirpp_quota.h"
#include "storage/mailname_tree.h"
#include "util/file_io.h"
#include "util/log.h"
#include "util/working_directory.h"

namespace {

/// A longer file is due for a recount.
constexpr std::size_t LARGEST_MAILDIRSIZE = 5120;

struct Limits {
    long size = 0;
    long count = 0;
};

struct Usage {
    long size = 0;
    long count = 0;
};

/// A number at the beginning of `text`, which it is cut from. Nothing where there is none.
std::optional<long long> takeNumber(const char*& text) {
    char* end = nullptr;
    const long long number = std::strtoll(text, &end, 10);
    if (end == text) {
        return std::nullopt;
    }
    text = end;
    return number;
}

/// The first line. Kept lenient as delivery agents write it: a missing count limit, and what stands between the two.
std::optional<Limits> parseHeader(const std::string& header) {
    if (header.empty()) {
        return Limits{};
    }
    const char* text = header.c_str();
    const char* const end = text + header.size();
    const auto size = takeNumber(text);
    if (!size) {
        return std::nullopt;
    }
    const std::string_view rest(text, static_cast<std::size_t>(end - text));
    if (rest == "S") {
        return Limits{*size, 0};
    }
    if (rest.size() < 2 || (rest[0] != 'S' && rest[1] != ',')) {
        return std::nullopt;
    }
    text += 2;
    const auto count = takeNumber(text);
    if (!count || *text != 'C' || text + 1 != end) {
        return std::nullopt;
    }
    return Limits{*size, *count};
}

/// One usage record: bytes, a blank, messages.
std::optional<Usage> parseRecord(const std::string& line) {
    const char* text = line.c_str();
    const auto size = takeNumber(text);
    if (!size || std::isspace(static_cast<unsigned char>(*text)) == 0) {
        return std::nullopt;
    }
    ++text;
    const auto count = takeNumber(text);
    if (!count || text != line.c_str() + line.size()) {
        return std::nullopt;
    }
    return Usage{*size, *count};
}

/// The sum of the records. Nothing for a malformed one, a last line that does not end, or a sum below 0 or too large.
std::optional<Usage> sumRecords(std::string_view records) {
    Usage sum;
    while (!records.empty()) {
        const auto end = records.find('\n');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const auto record = parseRecord(std::string(records.substr(0, end)));
        if (!record || __builtin_add_overflow(sum.size, record->size, &sum.size) ||
            __builtin_add_overflow(sum.count, record->count, &sum.count)) {
            return std::nullopt;
        }
        records.remove_prefix(end + 1);
    }
    if (sum.size < 0 || sum.count < 0) {
        return std::nullopt;
    }
    return sum;
}

/// The file's text. Nothing when it cannot be read, is too long, or is no file: a pipe
/// in its place must not hold us, nor a link lead us away.
std::optional<std::string> readMaildirsize() {
    const int fd = kavro::retryInterrupted(
        [] { return ::open("maildirsize", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
    if (fd == -1) {
        return std::nullopt;
    }
    const kavro::CFile file(::fdopen(fd, "rt"));
    if (file == nullptr) {
        ::close(fd);
        return std::nullopt;
    }
    struct stat status;
    if (::fstat(fd, &status) == -1 || !S_ISREG(status.st_mode)) {
        return std::nullopt;
    }
    std::string text(LARGEST_MAILDIRSIZE + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), file.get()));
    if (std::ferror(file.get()) != 0 || text.size() > LARGEST_MAILDIRSIZE) {
        return std::nullopt;
    }
    return text;
}

/// What the file says; the limits are set as far as they could be read.
std::optional<Usage> readUsage(long& sizeLimit, long& countLimit) {
    const auto text = readMaildirsize();
    if (!text) {
        return std::nullopt;
    }
    const auto end = text->find('\n');
    const auto header = end == std::string::npos ? std::nullopt : parseHeader(text->substr(0, end));
    if (header) {
        sizeLimit = header->size;
        countLimit = header->count;
    }
    if (!header || header->size < 0) {
        kavro_log(KAVRO_LOG_ERROR, "maildirsize quota header is corrupted. Please run mxrepair utility to fix.");
        return std::nullopt;
    }
    return sumRecords(std::string_view(*text).substr(end + 1));
}

/// True when `used` (negative: nothing) and what is added, of any integral type, pass the limit; 0 is none.
template <typename Added>
bool exceeds(long limit, std::uint64_t used, Added added) {
    const auto counted = std::max(static_cast<std::int64_t>(used), std::int64_t{0});
    std::int64_t total = 0;
    return limit != 0 && (__builtin_add_overflow(counted, added, &total) || total > limit);
}

}  // namespace

int get_maildirpp_usage_and_limits(const char* maildir, int strict, std::uint64_t* size, std::uint64_t* count,
                                   long* sizeLimit, long* countLimit) {
    *size = *count = 0;
    *sizeLimit = *countLimit = LONG_MAX;
    const kavro::QuietFdOwner directory = kavro::mail::openMailDirectory(maildir);
    kavro::WorkingDirectoryScope scope;
    if (directory.empty() || !scope.enter(directory.get())) {
        return 0;
    }
    if (const auto usage = readUsage(*sizeLimit, *countLimit)) {
        *size = static_cast<std::uint64_t>(usage->size);
        *count = static_cast<std::uint64_t>(usage->count);
        return 1;
    }
    if (strict != 0) {
        return 0;
    }
    long newestMtime = 0;
    return get_maildirpp_messages_usage(size, count, &newestMtime);
}

int get_maildirpp_usage(const char* maildir, std::uint64_t* size, std::uint64_t* count) {
    long sizeLimit = 0;
    long countLimit = 0;
    return get_maildirpp_usage_and_limits(maildir, 0, size, count, &sizeLimit, &countLimit);
}

int check_maildirpp_overquota(const char* maildir, std::uint64_t addSize, long addCount) {
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long sizeLimit = 0;
    long countLimit = 0;
    if (get_maildirpp_usage_and_limits(maildir, 1, &size, &count, &sizeLimit, &countLimit) == 0) {
        return 0;
    }
    return exceeds(sizeLimit, size, addSize) || exceeds(countLimit, count, addCount) ? 1 : 0;
}
