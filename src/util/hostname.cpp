// The resolver's canonical name of what gethostname(2) answers.
#include "util/hostname.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "util/log.h"

namespace {

/// A host name of 64 characters, the longest that the kernel knows, does not fit with its NUL.
constexpr std::size_t kHostNameArea = 64;

struct AddressListFreer {
    void operator()(addrinfo* list) const noexcept { ::freeaddrinfo(list); }
};

/// The second message of each failure to find the name; -1.
int advise_on_host_name() {
    kavro_log(KAVRO_LOG_ERROR,
              "It is impossible to detect the FQDN of the host.\n"
              "Please make sure that the host name is correctly specified in /etc/hosts and goes right after the "
              "host's IP address.\n"
              "Depending on your OS, you might need to set the host name in /etc/HOSTNAME or /etc/hostname.");
    return -1;
}

}  // namespace

int get_hostname_fqdn(char* buffer, std::size_t size) {
    std::array<char, kHostNameArea> name{};
    if (::gethostname(name.data(), name.size()) == -1) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to get hostname: %s", std::strerror(errno));
        return advise_on_host_name();
    }
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    int code = ::getaddrinfo(name.data(), nullptr, &hints, &found);
    if (code != 0) {
        // A file that a signal kept the resolver from opening or reading is a name that is not there, without a reason.
        code = ::getaddrinfo(name.data(), nullptr, &hints, &found);
    }
    if (code != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to resolve fqdn: %s", ::gai_strerror(code));
        return advise_on_host_name();
    }
    const std::unique_ptr<addrinfo, AddressListFreer> owner(found);
    if (found == nullptr || found->ai_canonname == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to resolve fqdn");
        return advise_on_host_name();
    }
    const char* canonical = found->ai_canonname;
    if (std::strchr(canonical, '.') == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Canonname is not correct fqdn");
        return advise_on_host_name();
    }
    const std::size_t length = std::strlen(canonical);
    if (length >= size) {
        kavro_log(KAVRO_LOG_ERROR, "Buffer size is not enough to hold hostname");
        return -1;
    }
    std::memcpy(buffer, canonical, length + 1);
    return 0;
}
