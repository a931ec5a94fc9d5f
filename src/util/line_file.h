// Editing of small text files line by line, under the file's lock, through a copy that is renamed over the file.
#pragma once

enum file_strings_action : int {
    FILE_STRINGS_REMOVE = 0,  ///< drop every line equal to a given one
    FILE_STRINGS_ADD = 1      ///< append the given lines
};

enum file_strings_place : int { FILE_STRINGS_AT_END = 0 };

/// `lines` is null-terminated; a line may carry its newline. The file keeps owner and mode. Removing from a missing
/// file fails; adding to one creates it with mode 0600. 0 on success, 1 or -1, reported, on failure: the file is then
/// as it was.
int file_strings(const char* path, const char* const* lines, int action, int place);
/// As file_strings, for the file that the last name of `path` is in an open directory; lock and messages name the whole
/// path.
int file_strings_at(int directory, const char* path, const char* const* lines, int action, int place);
/// file_strings for one line.
int file_str(const char* path, const char* line, int action, int place);
