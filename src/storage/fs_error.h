// Failures of the mail storage.
#pragma once

#include <boost/filesystem.hpp>
#include <string>

namespace kavro::mail {

/// A file-system error built from a short operation text, one or two paths and an errno value.
class FSError : public boost::filesystem::filesystem_error {
public:
    FSError(const std::string& operation, const boost::filesystem::path& path, int error)
        : boost::filesystem::filesystem_error(operation, path, make(error)) {}
    FSError(const std::string& operation, const boost::filesystem::path& first, const boost::filesystem::path& second,
            int error)
        : boost::filesystem::filesystem_error(operation, first, second, make(error)) {}

private:
    static boost::system::error_code make(int error) { return {error, boost::system::system_category()}; }
};

}  // namespace kavro::mail
