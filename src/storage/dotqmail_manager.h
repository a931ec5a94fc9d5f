// Delivery files of the class layer.
#pragma once

#include <boost/filesystem.hpp>
#include <string>

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
