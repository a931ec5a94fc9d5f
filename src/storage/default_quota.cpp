// Quotas decided by the session mail data. They are stored nowhere of their own: each mailbox that has no quota of its
// own carries the default in its maildirsize.
#include "storage/default_quota.h"

#include <cstring>

#include "session/session_mail_data.h"
#include "session/session_queries.h"
#include "storage/maildirpp_quota.h"
#include "util/log.h"

namespace {

/// The quota of a mail record that has none of its own.
constexpr std::int64_t NO_QUOTA = -1;

}  // namespace

int store_default_mbox_quota(const char* domain, long quota) {
    const mail_db_data_t* data = loaded_session_mail_data(__func__);
    if (data == nullptr) {
        return 0;
    }
    const char* loaded = data->domain_name == nullptr ? "" : data->domain_name;
    if (std::strcmp(loaded, domain) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Session mail DB info is invalid, expected one for domain '%s', got '%s'", domain,
                  loaded);
        return 0;
    }
    for (std::size_t i = 0; i < data->mails_count; ++i) {
        const mail_db_mail_t& mail = data->mails[i];
        if (mail.quota == NO_QUOTA && store_mbox_quota(domain, mail.name, quota) == 0) {
            kavro_log(KAVRO_LOG_ERROR, "Unable to set default mbox quota for domain '%s' (processing '%s')", domain,
                      mail.name);
            return 0;
        }
    }
    return 1;
}

int rm_default_mbox_quota(const char* domain) {
    return store_default_mbox_quota(domain, NO_QUOTA);
}

int store_domain_quota(const char* domain, long quota) {
    return store_default_mbox_quota(domain, quota);
}

int rm_domain_quota(const char* domain) {
    return rm_default_mbox_quota(domain);
}

int rm_mbox_quota(const char* domain, const char* mailname) {
    const mail_db_data_t* data = loaded_session_mail_data(__func__);
    return data == nullptr ? 0 : store_mbox_quota(domain, mailname, data->domain_quota);
}
