// Directory trees: creation, removal, size.
#pragma once

#include <sys/types.h>

/// Creates a directory and its missing parents; those it makes get the mode and, unless uid or gid is -1, the owner.
/// An existing directory is left as it is. 0, or -1 with errno.
int make_dir_p(const char* path, mode_t mode, uid_t uid, gid_t gid);
/// Removes a tree, links not followed. A tree that is not there is no error. 0, or -1 with errno.
int rm_tree(const char* path);
/// The same for a name relative to an open directory.
int rm_tree_at(int parent, const char* name);
/// Size of a file, or of a directory tree with the directories themselves: bytes, or disk space (512 times the block
/// count) with `inBlocks`; 2^63-1 where it would be more. Symbolic links are counted, not followed. -1 with errno on
/// failure.
long get_dir_size(const char* path, int inBlocks);
/// Size of what is in the working directory: bytes, or 512-byte blocks with `inBlocks`. 0 when it cannot be read.
long count_cur_dir(int inBlocks);
