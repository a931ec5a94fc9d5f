// The files of one mailname home that are made when they are missing: directories, delivery file, quota file.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>

namespace mxrepair {

/// A directory of a home, by its path in it.
struct LayoutEntry {
    const char* name;
    bool required;  ///< the mail user may remove the others
};
/// In the order in which they are made.
inline constexpr std::array<LayoutEntry, 10> kHomeLayout = {{{".", true},
                                                             {"Maildir", true},
                                                             {"Maildir/tmp", true},
                                                             {"Maildir/new", true},
                                                             {"Maildir/cur", true},
                                                             {"Maildir/.Spam", false},
                                                             {"Maildir/.Spam/tmp", false},
                                                             {"Maildir/.Spam/new", false},
                                                             {"Maildir/.Spam/cur", false},
                                                             {"@attachments", true}}};

/// While it lives, files that this thread makes belong to the mail user, and are made with its rights: nothing need be
/// given away, and no link leads where the mail user could not go.
class AsMailUser {
public:
    AsMailUser();
    AsMailUser(const AsMailUser&) = delete;
    AsMailUser& operator=(const AsMailUser&) = delete;
    ~AsMailUser();

private:
    uid_t uid_;
    gid_t gid_;
};

/// Makes the directories of a home in an open domain root that are not there. Throws SystemError.
void makeHomeDirectories(int root, const std::string& name, const std::string& path, bool requiredOnly);
/// Makes a home that is not there in an open domain root: directories, delivery file, quota file. What another run made
/// of it stays. The quota is in bytes, -1: none. `path` names the home in errors. Throws SystemError.
void makeWholeHome(int root, const std::string& name, const std::string& path, long quota);

/// Writes a delivery file (into the mailbox) under that name in an open directory, unless a non-empty file or anything
/// else stands there.
void makeDeliveryFile(int directory, const std::string& name, const std::string& path);
/// The limit that the quota file shows for a quota in bytes; negative: none.
long limitOf(long quota);

}  // namespace mxrepair
