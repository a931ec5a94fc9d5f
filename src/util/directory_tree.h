// Recursive creation and removal of directories.
#pragma once

#include <sys/types.h>

/// Creates a directory and its missing parents; those it makes get the mode and, unless uid or gid is -1, the owner.
/// An existing directory is left as it is. 0, or -1 with errno.
int make_dir_p(const char* path, mode_t mode, uid_t uid, gid_t gid);
/// Removes a tree, links not followed. A tree that is not there is no error. 0, or -1 with errno.
int rm_tree(const char* path);
/// The same for a name relative to an open directory.
int rm_tree_at(int parent, const char* name);
