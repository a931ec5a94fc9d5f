// The quota file "maildirsize" of a Maildir: limits and usage, written whole and read back. Plain functions, 1 on
// success, 0 on failure, reported. Format: courier-imap's maildirquota(7).
#pragma once

#include <sys/types.h>

#include <cstdint>

/// Writes a new maildirsize with the limits (0: none) and the usage counted now.
int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid, std::uint64_t sizeLimit,
                                std::uint64_t countLimit);

/// Usage in bytes and messages, limits (LONG_MAX where unknown). An unusable file is a failure when `strict`, else the
/// usage is counted.
int get_maildirpp_usage_and_limits(const char* maildir, int strict, std::uint64_t* size, std::uint64_t* count,
                                   long* sizeLimit, long* countLimit);
int get_maildirpp_usage(const char* maildir, std::uint64_t* size, std::uint64_t* count);
