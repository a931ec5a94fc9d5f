// Quotas of the class layer: the plain quota functions with exceptions.
#pragma once

#include <string>

#include "storage/maildir_manager.h"

namespace kavro::mail {

/// Quotas in bytes; negative: none. Failures throw FSError.
class MaildirPPManager : public MaildirManager {
public:
    static MaildirPPManager& getInstance();

    void setMailboxQuota(const std::string& domain, const std::string& mailname, long quota);
    void removeMailboxQuota(const std::string& domain, const std::string& mailname);
    void setDefaultMailboxQuota(const std::string& domain, long quota);
    void removeDefaultMailboxQuota(const std::string& domain);
    void setDomainQuota(const std::string& domain, long quota);
    void removeDomainQuota(const std::string& domain);

private:
    MaildirPPManager() = default;
};

}  // namespace kavro::mail
