// The panel configuration file /etc/zcp/zcp.conf: read once, on first use, with compile-time defaults behind it.
#pragma once

#include <cstddef>

/// The panel's own product root. A fixed place: the configuration file's key of this name is not asked.
inline constexpr const char* kProductRoot = "/opt/zcp";

/// Name and value, both owned by the table.
struct ConfEntry {
    char* name;
    char* value;
};

/// A growable table of entries. Zero-initialise before the first call.
struct ConfTable {
    ConfEntry* entries;
    std::size_t capacity;
    std::size_t count;
    int sorted;
};

/// Makes room for one more entry. 0, or -1 with errno ENOMEM.
int conf_init_r(ConfTable* table);
/// Adds or replaces a value; both strings are copied. 0, or -1 with errno ENOMEM.
int conf_set_r(const char* name, const char* value, ConfTable* table);
/// Sorts by name.
void conf_finalize_r(ConfTable* table);
/// The stored value, owned by the table, or null.
const char* conf_get_r(const char* name, const ConfTable* table);
/// Reads a file into the table and sorts it. Bad lines are logged and passed over. 0, or -1 with errno.
int conf_read_file_r(const char* path, ConfTable* table);
/// Frees the table, which was allocated with calloc(3), and all it holds. Null is allowed.
void conf_free_r(ConfTable* table);
/// Byte-wise comparison of two entries by name, for qsort(3) and bsearch(3).
int cmp_conf(const void* left, const void* right);

/// Index of the mail storage root among the known keys.
inline constexpr std::size_t kMailRootKey = 1;
/// Number of known keys, the sentinels at both ends included.
inline constexpr std::size_t kKnownKeys = 30;

extern ConfTable* theZcpConfHash;                        ///< null until the file was read
extern const char* theZcpConfArray[kKnownKeys];          ///< values already asked for
extern const char* const theZcpConfNames[kKnownKeys];    ///< known keys
extern const char* const theZcpConfDefauls[kKnownKeys];  ///< their compile-time defaults

/// Loads the file unless that was done. 0 when the table is there, else -1.
int autoprepend();
/// The file's value, or null. The strings of all four accessors live as long as the process.
const char* zcpConfGet(const char* name);
/// The file's value of the key with that index (0 to 29, not checked), or null.
const char* zcpConfGetByIndex(std::size_t index);
/// The same with the compile-time default in place of null.
const char* zcpConfGetDefaultByIndex(std::size_t index);
/// By name; null, logged, for a name that is not a known key.
const char* zcpConfGetDefault(const char* name);
