// The mail handlers database: per-recipient filters and actions in SQLite. Each operation opens its own connection
// unless it is given one. 0 (or as told) on success, -1 on failure, logged.
#pragma once

#include "util/sqlite_connection.h"

/// Type of a global handler.
inline constexpr int MH_TYPE_GLOBAL = 4;

/// One handler. The strings are owned by the record.
struct mh_data {
    int priority;
    int type;
    int queue;
    char* name;
    char* address;
    char* executable;
    char* context;
    unsigned char protect_on_restore;
    unsigned char enabled;
};

/// A doubly linked list of records.
struct mh_list_node {
    mh_data* data;
    mh_list_node* next;
    mh_list_node* previous;
};
struct mh_list {
    mh_list_node* head;
};

mh_data* mh_data_init();                        ///< defaults: priority 0, type 5, queue 5; null, logged, on failure
void mh_data_init_ex(mh_data* record);          ///< resets in place without freeing
mh_data* mh_data_clone(const mh_data* record);  ///< deep copy, or null
void mh_data_free(mh_data* record);             ///< frees strings and record
void mh_data_free_ex(mh_data* record);          ///< frees the strings only
mh_list* mh_list_init();
/// Stores a deep copy at the head. 0 or -1, logged.
int mh_list_add(mh_list* list, const mh_data* record);
void mh_list_free(mh_list* list);

/// The address to store for a global handler ("all" for null or empty), or null, logged.
const char* validate_global_handler_recipient(const char* address);

extern const char* mh_db_path;
/// The text is copied.
void mh_db_path_set(const char* path);

int mh_db_create();
int mh_db_create_no_set_permissions();
int fix_mh_db_permissions(const char* path);

int mh_db_add(kavro::SqliteConnection* connection, const mh_data* record);
int mh_db_remove(const char* name, int type, const char* address, int queue);
int mh_db_remove_addr(const char* address);
int mh_db_remove_name(const char* name);
/// Removes the handlers of every address in exactly that domain, in one transaction.
int mh_db_remove_all(const char* domain);
int mh_db_switch(const char* name, int type, int queue, const char* address, int enabled);
int mh_db_enable(const char* name, int type, int queue, const char* address);
int mh_db_disable(const char* name, int type, int queue, const char* address);
int mh_db_switch_by_name(const char* name, int enabled);
int mh_db_switch_by_addr(const char* address, int enabled);
int mh_db_move_addr(const char* old_address, const char* new_address);
/// Copies handlers. With both names: those of old_name@old_domain to new_name@new_domain. With both names null: those
/// of every address in exactly old_domain, to the same name in new_domain.
int mh_db_clone(const char* old_name, const char* old_domain, const char* new_name, const char* new_domain);
/// Applies an operation to every record of the list in one transaction.
int mh_db_do(const mh_list* list, int (*operation)(kavro::SqliteConnection* connection, const mh_data* record));
int mh_db_select(int queue, int type, const char* address, mh_list* list);
int mh_db_select_by_name(const char* fragment, mh_list* list);
