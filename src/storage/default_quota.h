// Quotas that the session mail data decides: a default is written to every mailbox without a quota of its own.
// 1 on success, 0 on failure, logged.
#pragma once

int store_default_mbox_quota(const char* domain, long quota);
int rm_default_mbox_quota(const char* domain);
int store_domain_quota(const char* domain, long quota);
int rm_domain_quota(const char* domain);
/// Stores the session domain's default quota for one mailbox.
int rm_mbox_quota(const char* domain, const char* mailname);
