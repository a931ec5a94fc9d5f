// Opening, checking and reading of .qmail. Its format is that of dot-qmail(5), less mbox files.
#include "mxdeliver/delivery_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "mxdeliver/delivery_error.h"
#include "process/retry.h"
#include "storage/mail_tree.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/file_io.h"

namespace mxdeliver {

namespace {

constexpr const char* kFileName = ".qmail";

/// The mail user's own, and nobody else may write to it.
void requireOwn(int fd, mode_t type, const std::string& what) {
    struct stat found {};
    if (::fstat(fd, &found) != 0) {
        throw Trouble("cannot examine " + what + ": " + std::strerror(errno));
    }
    if ((found.st_mode & S_IFMT) != type || found.st_uid != ::geteuid()) {
        throw Trouble(what + " is not the mail user's own");
    }
    if ((found.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw Trouble("others may write to " + what);
    }
}

/// Empty when nothing has that name.
kavro::FdOwner openOwn(const kavro::FdOwner& directory, const std::string& name, int flags, mode_t type) {
    kavro::FdOwner fd(kavro::retryInterrupted([&] {
        return ::openat(directory.get(), name.c_str(), flags | O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    }));
    if (!fd.empty()) {
        requireOwn(fd.get(), type, name);
    } else if (errno != ENOENT) {
        throw Trouble("cannot open " + name + ": " + std::strerror(errno));
    }
    return fd;
}

[[noreturn]] void noSuchMailname(const Envelope& envelope) {
    throw DeliveryError(EX_NOUSER, "5.1.1 there is no mailname " + envelope.recipient);
}

Instruction parseLine(std::string_view line, std::size_t number) {
    auto refuse = [&](const char* why) { return Trouble("line " + std::to_string(number) + " of .qmail " + why); };
    if (line.front() == '|') {
        return {Instruction::Program, std::string(line.substr(1))};
    }
    if (line.front() == '.' || line.front() == '/') {
        if (line.back() != '/') {
            throw refuse("names an mbox file, which is not supported");
        }
        return {Instruction::Maildir, std::string(line)};
    }
    const std::string_view address = line.front() == '&' ? line.substr(1) : line;
    if (address.empty() || address.front() == '-' || address.find_first_of(" \t,<>\"") != std::string_view::npos) {
        throw refuse("is no address");
    }
    if (line.front() != '&' && std::isalnum(static_cast<unsigned char>(line.front())) == 0) {
        throw refuse("cannot be understood");
    }
    return {Instruction::Forward, std::string(address)};
}

}  // namespace

kavro::FdOwner openHome(const Envelope& envelope) {
    if (!kavro::mail::isPathComponent(envelope.domain) || !kavro::mail::isPathComponent(envelope.localPart)) {
        noSuchMailname(envelope);
    }
    const boost::filesystem::path root(zcpConfGetDefaultByIndex(kMailRootKey));
    const kavro::QuietFdOwner domain =
        kavro::mail::openDomainRoot(root / kavro::mail::lowerPathComponent(envelope.domain));
    if (domain.empty()) {
        if (errno == ENOENT) {
            noSuchMailname(envelope);
        }
        throw Trouble("cannot open the domain's directory: " + std::string(std::strerror(errno)));
    }
    kavro::FdOwner home = openOwn(domain, kavro::mail::lowerPathComponent(envelope.localPart), O_DIRECTORY, S_IFDIR);
    if (home.empty()) {
        noSuchMailname(envelope);
    }
    return home;
}

std::vector<Instruction> readDeliveryFile(const kavro::FdOwner& home) {
    kavro::FdOwner fd = openOwn(home, kFileName, 0, S_IFREG);
    std::size_t size = 0;
    kavro::CString text;
    if (!fd.empty()) {
        const kavro::CFile file = kavro::readingStream(fd);
        if (file != nullptr) {
            text.reset(read_stream_contents(file.get(), &size));
        }
        if (text == nullptr) {
            throw Trouble(std::string("cannot read .qmail: ") + std::strerror(errno));
        }
    }
    if (size == 0) {
        return {{Instruction::Maildir, "./Maildir/"}};
    }
    std::vector<Instruction> instructions;
    std::string_view rest(text.get(), size);
    if (rest.find('\0') != std::string_view::npos) {
        throw Trouble(".qmail holds a NUL byte");
    }
    for (std::size_t number = 1; !rest.empty(); ++number) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
        if (!line.empty() && line.front() != '#') {
            instructions.push_back(parseLine(line, number));
        }
    }
    return instructions;
}

}  // namespace mxdeliver
