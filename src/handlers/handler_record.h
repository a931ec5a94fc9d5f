// One mail handler as a record, and lists of them. The strings of a record are malloc'ed and belong to it.
#pragma once

/// Type of a global handler: one that runs for every recipient.
inline constexpr int kGlobalHandlerType = 4;

/// One handler. The strings are owned by the record; a null context is stored as "none".
struct mh_data {
    int priority;  ///< higher runs first
    int type;
    int queue;                         ///< stage of the mail system at which the handler runs
    char* name;                        ///< of the service that registered it
    char* address;                     ///< recipient, stored in lower case
    char* executable;                  ///< program that the mail system runs
    char* context;                     ///< argument for it
    unsigned char protect_on_restore;  ///< 0 or 1; column "protected"
    unsigned char enabled;             ///< 0 or 1; others stay in the database but do not run
};

/// A doubly linked list of records. The list owns nodes and records.
struct mh_list_node {
    mh_data* data;
    mh_list_node* next;
    mh_list_node* previous;
};
struct mh_list {
    mh_list_node* head;
};

/// A new record: priority 0, type 5, queue 5, no strings, flags 0. Null, logged, when there is no memory.
mh_data* mh_data_init();
/// Sets the same defaults in place; strings are forgotten, not freed.
void mh_data_init_ex(mh_data* record);
/// A deep copy for mh_data_free, or null, logged.
mh_data* mh_data_clone(const mh_data* record);
/// Frees strings and record. Null is allowed.
void mh_data_free(mh_data* record);
/// Frees the strings only and leaves null in their places.
void mh_data_free_ex(mh_data* record);

/// A new empty list for mh_list_free. Null, logged, when there is no memory.
mh_list* mh_list_init();
/// Stores a deep copy at the head. 0, or -1, logged.
int mh_list_add(mh_list* list, const mh_data* record);
/// Frees the list with its records. Null is allowed.
void mh_list_free(mh_list* list);

/// The address to store for a global handler ("all" for null or empty), or null, logged.
const char* validate_global_handler_recipient(const char* address);

namespace kavro::handlers {

inline constexpr const char* kAll = "all";
inline constexpr const char* kAllRecipients = "all-recipients";

/// The recipient that `address` stands for in a global handler (null and empty stand for "all"), or null when it is
/// none. Logs nothing.
const char* global_recipient(const char* address);

}  // namespace kavro::handlers
