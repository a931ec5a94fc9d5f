// Quota and size of a mailbox: what its attachment store takes is not left for mail. Quotas that the session mail data
// decides are stored nowhere of their own: each mailbox without a quota of its own carries the default in its
// maildirsize. Plain functions, 1 on success, 0 on failure, reported.
#pragma once

#include <cstdint>

/// Writes a maildirsize for the mail user; a negative quota means no limit, 0 is written as 1 so that delivery stops.
int store_maildirpp_quota_raw(const char* maildir, long quota);
/// The quota in bytes of one mailbox, less what its attachment store takes.
int store_mbox_quota(const char* domain, const char* mailname, long quota);
/// Stores the session domain's default quota for one mailbox.
int rm_mbox_quota(const char* domain, const char* mailname);

int store_default_mbox_quota(const char* domain, long quota);
int rm_default_mbox_quota(const char* domain);
int store_domain_quota(const char* domain, long quota);
int rm_domain_quota(const char* domain);

/// 1 when a message of that size would exceed a limit, else 0.
int check_maildirpp_overquota(const char* maildir, std::uint64_t addSize, long addCount);

/// Bytes of mail and attachments; attachments as disk space with `inBlocks`. Malformed names end the process with
/// status 1.
std::uint64_t get_mbox_size(const char* mailname, const char* domain, int inBlocks);
