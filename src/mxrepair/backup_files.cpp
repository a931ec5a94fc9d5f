// Writing, describing and comparing of the files of a backup.
#include "mxrepair/backup_files.h"

#include <fcntl.h>
#include <grp.h>
#include <openssl/evp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "process/retry.h"
#include "process/system_error.h"
#include "util/file_io.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;

constexpr std::size_t kPieceSize = 65536;
constexpr mode_t kModeBits = 07777;

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    kavro::throwSystemError("cannot " + what + " " + path, errno);
}

kavro::FdOwner openForReading(const std::string& path) {
    kavro::FdOwner file(kavro::openRegular(path.c_str(), O_RDONLY | O_NOFOLLOW));
    if (file.empty()) {
        fail("read", path);
    }
    return file;
}

/// Hands the file's bytes over in pieces.
template <typename Consumer>
void readPieces(const std::string& path, const Consumer& consume) {
    const kavro::FdOwner file = openForReading(path);
    std::array<char, kPieceSize> piece;
    for (;;) {
        const ssize_t got = kavro::retryInterrupted([&] { return ::read(file.get(), piece.data(), piece.size()); });
        if (got < 0) {
            fail("read", path);
        }
        if (got == 0) {
            return;
        }
        consume(std::string_view(piece.data(), static_cast<std::size_t>(got)));
    }
}

/// Sum and size of what stands in the file now.
void measure(const std::string& path, BackupFile& file) {
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> digest(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    std::array<unsigned char, EVP_MAX_MD_SIZE> sum;
    unsigned length = 0;
    file.size = 0;
    bool good = digest != nullptr && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1;
    readPieces(path, [&](std::string_view piece) {
        good = good && EVP_DigestUpdate(digest.get(), piece.data(), piece.size()) == 1;
        file.size += piece.size();
    });
    if (!good || EVP_DigestFinal_ex(digest.get(), sum.data(), &length) != 1) {
        throw std::runtime_error("cannot compute the checksum of " + path);
    }
    constexpr std::string_view kDigits = "0123456789abcdef";
    file.sum.clear();
    for (unsigned i = 0; i != length; ++i) {
        file.sum += kDigits[sum[i] >> 4U];
        file.sum += kDigits[sum[i] & 0xFU];
    }
}

}  // namespace

kavro::FdOwner createFile(const std::string& path, mode_t mode) {
    kavro::FdOwner file(kavro::openRegular(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode));
    if (file.empty()) {
        fail("make", path);
    }
    return file;
}

void writeTo(const kavro::FdOwner& file, const std::string& path, std::string_view bytes) {
    if (kavro::writeAll(file.get(), bytes.data(), bytes.size()) != bytes.size()) {
        fail("write", path);
    }
}

void syncPath(const std::string& path) {
    const kavro::FdOwner file(
        kavro::retryInterrupted([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK); }));
    if (file.empty() || kavro::retryInterrupted([&] { return ::fsync(file.get()); }) != 0) {
        fail("sync", path);
    }
}

void copyFile(const std::string& from, const std::string& to) {
    const kavro::FdOwner target = createFile(to);
    readPieces(from, [&](std::string_view piece) { writeTo(target, to, piece); });
    if (kavro::retryInterrupted([&] { return ::fsync(target.get()); }) != 0) {
        fail("sync", to);
    }
}

std::vector<std::string> filesBelow(const std::string& directory) {
    std::vector<std::string> files;
    for (fs::recursive_directory_iterator entry(directory); entry != fs::recursive_directory_iterator(); ++entry) {
        const fs::file_type type = entry->symlink_status().type();
        if (type == fs::regular_file) {
            files.push_back(fs::relative(entry->path(), directory).string());
        } else if (type != fs::directory_file) {
            throw std::runtime_error(entry->path().string() + " is neither a directory nor a regular file");
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

BackupFile describe(const std::string& backup, const std::string& path, const std::string& original) {
    BackupFile file;
    file.path = path;
    measure(backup + '/' + path, file);
    struct stat found {};
    if (::lstat(original.c_str(), &found) != 0) {
        fail("examine", original);
    }
    file.mode = found.st_mode & kModeBits;
    const passwd* owner = ::getpwuid(found.st_uid);
    const group* owningGroup = ::getgrgid(found.st_gid);
    if (owner == nullptr || owningGroup == nullptr) {
        throw std::runtime_error(original + " belongs to nobody that is known by name");
    }
    file.owner = owner->pw_name;
    file.group = owningGroup->gr_name;
    return file;
}

void writeManifest(const std::string& backup, const std::vector<BackupFile>& files) {
    std::ostringstream text;
    text << kManifestTitle << '\n';
    for (const BackupFile& file : files) {
        if (file.path.find('\n') != std::string::npos) {
            throw std::runtime_error("the name of " + file.path + " has a line feed");
        }
        text << file.sum << ' ' << file.size << ' ' << std::oct << file.mode << std::dec << ' ' << file.owner << ' '
             << file.group << ' ' << file.path << '\n';
    }
    const std::string path = backup + '/' + kManifestName;
    writeTo(createFile(path), path, text.str());
    syncPath(path);
}

std::vector<BackupFile> readManifest(const std::string& backup) {
    const std::string path = backup + '/' + kManifestName;
    std::string text;
    readPieces(path, [&text](std::string_view piece) { text += piece; });
    std::istringstream lines(text);
    std::string line;
    if (!std::getline(lines, line) || line != kManifestTitle) {
        throw std::runtime_error(path + " does not begin with \"" + kManifestTitle + "\"");
    }
    std::vector<std::string> present = filesBelow(backup);
    present.erase(std::remove(present.begin(), present.end(), kManifestName), present.end());
    std::vector<BackupFile> files;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        BackupFile file;
        BackupFile now;
        words >> file.sum >> file.size >> std::oct >> file.mode >> file.owner >> file.group;
        if (!words || words.get() != ' ' || !std::getline(words, file.path)) {
            throw std::runtime_error("the manifest has a line that is none: " + line);
        }
        const auto place = std::find(present.begin(), present.end(), file.path);
        if (place == present.end()) {
            throw std::runtime_error("the backup lacks " + file.path);
        }
        present.erase(place);
        measure(backup + '/' + file.path, now);
        if (now.sum != file.sum || now.size != file.size) {
            throw std::runtime_error(file.path + " of the backup is not what its manifest tells");
        }
        files.push_back(std::move(file));
    }
    if (!present.empty()) {
        throw std::runtime_error("the backup's manifest does not know " + present.front());
    }
    return files;
}

void giveAway(const std::string& path, const BackupFile& file) {
    const passwd* owner = ::getpwnam(file.owner.c_str());
    const group* owningGroup = ::getgrnam(file.group.c_str());
    if (owner == nullptr || owningGroup == nullptr) {
        throw std::runtime_error("this node has no " +
                                 (owner == nullptr ? "user " + file.owner : "group " + file.group));
    }
    const kavro::FdOwner opened = openForReading(path);
    if (kavro::retryInterrupted([&] { return ::fchown(opened.get(), owner->pw_uid, owningGroup->gr_gid); }) != 0 ||
        kavro::retryInterrupted([&] { return ::fchmod(opened.get(), file.mode); }) != 0 ||
        kavro::retryInterrupted([&] { return ::fsync(opened.get()); }) != 0) {
        fail("give away", path);
    }
}

}  // namespace mxrepair
