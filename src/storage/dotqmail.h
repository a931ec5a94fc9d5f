// The .qmail delivery file of a mailname, edited line by line. Plain functions that take its path: 0, or -1, logged;
// and the same of the class layer.
#pragma once

#include <boost/filesystem.hpp>
#include <cstddef>
#include <string>

int dotqmail_reset(const char* path);
int dotqmail_add_delivery(const char* path);
int dotqmail_remove_delivery(const char* path);
int dotqmail_remove_delivery_strings(const char* path);
int dotqmail_add_forward(const char* path, const char* address);
int dotqmail_remove_forward(const char* path, const char* address);

/// The same by mailname and domain. The first two write a mailname's paths, lower-cased whole, into `dst` of `size`
/// bytes.
int get_dotqmail_path(char* dst, std::size_t size, const char* mailname, const char* domain);
int get_mailhome_path(char* dst, std::size_t size, const char* mailname, const char* domain);

int add_mailname_delivery(const char* mailname, const char* domain);
int remove_mailname_delivery(const char* mailname, const char* domain);
int add_mn_forward(const char* mailname, const char* domain, const char* address);
int rm_mn_forward(const char* mailname, const char* domain, const char* address);

namespace kavro::mail {

/// The delivery file of one mailname home. Failures throw SystemError("unable to modify <path>").
class DotQMailManager {
public:
    enum class Position { First, Last };

    explicit DotQMailManager(const boost::filesystem::path& mailnameHome);

    void reset();
    void enableDelivery();
    void disableDelivery();
    /// Always appends; the position tells other implementations where.
    void addRedirect(const std::string& address, Position position);
    void removeRedirect(const std::string& address);

private:
    boost::filesystem::path path_;
};

}  // namespace kavro::mail
