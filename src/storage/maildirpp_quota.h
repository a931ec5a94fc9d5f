// Maildir++ quota files: writing "maildirsize", reading usage and limits back, counting a mailbox. Plain functions,
// 1 on success, 0 on failure, reported. Format: courier-imap's maildirquota(7).
#pragma once

#include <sys/types.h>

#include <cstdint>

/// Writes a new maildirsize with the limits (0: none) and the usage counted now.
int write_maildirpp_maildirsize(const char* maildir, uid_t uid, gid_t gid, std::uint64_t sizeLimit,
                                std::uint64_t countLimit);
/// The same for the mail user; a negative quota means no limit, 0 is written as 1 so that delivery stops.
int store_maildirpp_quota_raw(const char* maildir, long quota);
/// The quota in bytes of one mailbox, less what its attachment store takes.
int store_mbox_quota(const char* domain, const char* mailname, long quota);

/// Usage in bytes and messages, limits (LONG_MAX where unknown). An unusable file is a failure when `strict`, else the
/// usage is counted.
int get_maildirpp_usage_and_limits(const char* maildir, int strict, std::uint64_t* size, std::uint64_t* count,
                                   long* sizeLimit, long* countLimit);
int get_maildirpp_usage(const char* maildir, std::uint64_t* size, std::uint64_t* count);
/// 1 when a message of that size would exceed a limit, else 0.
int check_maildirpp_overquota(const char* maildir, std::uint64_t addSize, long addCount);
/// Counts the Maildir in the working directory; `newestMtime` gets the newest change of a counted directory.
int get_maildirpp_messages_usage(std::uint64_t* size, std::uint64_t* count, long* newestMtime);
/// Raises `newest` to the modification times of a folder's "cur" and "new".
int get_maildirpp_folder_mtime(const char* folder, long* newest);

/// Bytes of mail and attachments; attachments as disk space with `inBlocks`. Malformed names end the process with
/// status 1.
std::uint64_t get_mbox_size(const char* mailname, const char* domain, int inBlocks);
