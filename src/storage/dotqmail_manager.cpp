// Delivery files of the class layer.
#include "storage/dotqmail_manager.h"

#include <cerrno>

#include "process/system_error.h"
#include "storage/dotqmail.h"

namespace kavro::mail {
namespace {

/// The plain functions have reported the cause.
void check(int result, const boost::filesystem::path& path) {
    if (result != 0) {
        throw SystemError("unable to modify " + path.string(), errno);
    }
}

}  // namespace

DotQMailManager::DotQMailManager(const boost::filesystem::path& mailnameHome) : path_(mailnameHome / ".qmail") {
}

void DotQMailManager::reset() {
    check(dotqmail_reset(path_.c_str()), path_);
}

void DotQMailManager::enableDelivery() {
    check(dotqmail_add_delivery(path_.c_str()), path_);
}

void DotQMailManager::disableDelivery() {
    check(dotqmail_remove_delivery(path_.c_str()), path_);
}

void DotQMailManager::addRedirect(const std::string& address, Position /*position*/) {
    check(dotqmail_add_forward(path_.c_str(), address.c_str()), path_);
}

void DotQMailManager::removeRedirect(const std::string& address) {
    check(dotqmail_remove_forward(path_.c_str(), address.c_str()), path_);
}

}  // namespace kavro::mail
