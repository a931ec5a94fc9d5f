// Sizes of files and directory trees.
#pragma once

/// Size of a file, or of a directory tree with the directories themselves: bytes, or disk space (512 times the block
/// count) with `inBlocks`; 2^63-1 where it would be more. Symbolic links are counted, not followed. -1 with errno on
/// failure.
long get_dir_size(const char* path, int inBlocks);
/// Size of what is in the working directory: bytes, or 512-byte blocks with `inBlocks`. 0 when it cannot be read.
long count_cur_dir(int inBlocks);
