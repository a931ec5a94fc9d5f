// The files of a backup: a directory with a manifest that tells of each what it holds and whose it was.
//
// The manifest is text. Its first line is kManifestTitle; each further line is of one file: SHA-256 in hexadecimal
// digits, size in bytes, mode in octal, owner, group, and the path in the backup, with one blank between them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "process/descriptors.h"

namespace mxrepair {

inline constexpr const char* kManifestName = "manifest";
inline constexpr const char* kManifestTitle = "mxadmin backup, format 1";

/// One file of a backup. Owners are names, so that a backup is good for another node, too.
struct BackupFile {
    std::string sum;
    std::uint64_t size = 0;
    mode_t mode = 0;
    std::string owner;
    std::string group;
    std::string path;  ///< relative to the backup
};

/// A new file, for writing. Throws SystemError, also when something has that name.
kavro::FdOwner createFile(const std::string& path, mode_t mode = 0600);
/// Writes all, or throws SystemError with the path.
void writeTo(const kavro::FdOwner& file, const std::string& path, std::string_view bytes);
/// Syncs a file or directory. Throws SystemError.
void syncPath(const std::string& path);
/// Copies a regular file, never through a link, and syncs the copy. Throws SystemError.
void copyFile(const std::string& from, const std::string& to);
/// Paths of all files below a directory, relative to it, sorted. Throws std::runtime_error for anything but directories
/// and regular files.
std::vector<std::string> filesBelow(const std::string& directory);

/// Describes a file of the backup; owner and mode are those of `original`. Throws SystemError.
BackupFile describe(const std::string& backup, const std::string& path, const std::string& original);
void writeManifest(const std::string& backup, const std::vector<BackupFile>& files);
/// Reads the manifest and compares every file with it. Throws std::runtime_error that names what is missing, surplus or
/// changed.
std::vector<BackupFile> readManifest(const std::string& backup);

/// Gives a file the owner and mode that the manifest tells. Throws SystemError; std::runtime_error for an account that
/// this node does not have.
void giveAway(const std::string& path, const BackupFile& file);

}  // namespace mxrepair
