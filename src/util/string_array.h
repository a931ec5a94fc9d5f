// Null-terminated arrays of allocated strings, as the session queries answer them.
#pragma once

/// Appends a copy of `s`; null or an empty array starts one. Returns the array, which may have moved; null, logged,
/// when there is no memory (the argument then stays valid).
char** string_to_mas(char** array, const char* s);
/// Frees the strings and the array. Null is allowed.
void free_array(char** array);
