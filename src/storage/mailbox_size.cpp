// The size shown for a mailbox: its mail and its attachment store.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "storage/maildirpp_quota.h"
#include "storage/path_component.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/dir_size.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"

namespace {

/// Ends the process when the name cannot be a directory of the mail storage.
void requirePathComponent(const char* name) {
    if (!kavro::mail::isPathComponent(name)) {
        messlog2(1, 0, "%s", kavro::mail::notPathComponentText(name).c_str());
    }
}

/// A path below the home; ends the process when it is too long.
std::string below(const std::string& home, const char* entry) {
    std::string path = home + entry;
    if (path.size() >= PATH_MAX) {
        messlog2(1, 0, "user mailbox path is too long");
    }
    return path;
}

}  // namespace

std::uint64_t get_mbox_size(const char* mailname, const char* domain, int inBlocks) {
    errno = 0;
    const kavro::CString asciiDomain(idn_toascii(domain));
    if (asciiDomain == nullptr) {
        messlog2(1, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
    }
    const kavro::CString lowerMailname(::strdup(mailname));
    if (lowerMailname == nullptr) {
        messlog2(1, 0, "fail to convert mail name to lower case format");
    }
    requirePathComponent(ascii_lower(asciiDomain.get()));
    requirePathComponent(ascii_lower(lowerMailname.get()));

    const std::string home = std::string(zcpConfGetDefaultByIndex(CONF_KAVRO_MAILNAMES_D)) + "/" + asciiDomain.get() +
                             "/" + lowerMailname.get() + "/";
    errno = 0;
    const std::string attachmentStore = below(home, "@attachments");
    const std::string maildir = below(home, "Maildir");

    // Kept: with `inBlocks` the attachments are measured as disk space, the mail still in bytes.
    const auto attachments = static_cast<std::uint64_t>(std::max(get_dir_size(attachmentStore.c_str(), inBlocks), 0L));
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    if (get_maildirpp_usage(maildir.c_str(), &size, &count) == 0) {
        messlog2(0, 0, "Unable to calculate Maildir++ size: %s", std::strerror(errno));
        return attachments;
    }
    constexpr std::uint64_t LARGEST = INT64_MAX;
    return std::min(attachments + size, LARGEST);
}
