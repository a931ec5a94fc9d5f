// The mail handlers database: per-recipient filters and actions in SQLite. Each operation opens its own connection
// unless it is given one, and waits for as long as another process keeps the database busy. 0 on success, -1 on
// failure, logged. Addresses are stored in lower case and may be given in any.
#pragma once

#include <sys/types.h>

#include "handlers/handler_record.h"
#include "util/sqlite_connection.h"

/// Path of the database, for all operations. Written by mh_db_path_set only.
extern const char* mh_db_path;
/// The text is copied.
void mh_db_path_set(const char* path);

/// Creates the database with its directory, then sets owner and mode; removes the new file when that fails. Over an
/// existing database it fails and leaves it as it is.
int mh_db_create();
/// The same without owner and mode.
int mh_db_create_no_set_permissions();
/// Owner root, group popuser, mode 0640.
int fix_mh_db_permissions(const char* path);

/// Adds a handler or replaces the one with the same queue, type, name, address, executable and context. A null
/// connection: one of its own.
int mh_db_add(kavro::SqliteConnection* connection, const mh_data* record);
/// Removes the handlers of that name, type and queue; a null address: those of every address. None is success.
int mh_db_remove(const char* name, int type, const char* address, int queue);
/// Removes all handlers of one address, also a bare domain's. None is success.
int mh_db_remove_addr(const char* address);
/// Removes all handlers of that name, whatever their address. None is success.
int mh_db_remove_name(const char* name);
/// Removes the handlers of every address in exactly that domain (what follows the last "@"), all or none. Those of the
/// bare domain, and of longer names that contain it, stay. None is success.
int mh_db_remove_all(const char* domain);
/// Sets `enabled` (0 or 1) on the handlers of that name, type and queue; a null address: those of every address.
int mh_db_switch(const char* name, int type, int queue, const char* address, int enabled);
/// mh_db_switch to 1.
int mh_db_enable(const char* name, int type, int queue, const char* address);
/// mh_db_switch to 0.
int mh_db_disable(const char* name, int type, int queue, const char* address);
/// Sets `enabled` on all handlers of that name, whatever their address.
int mh_db_switch_by_name(const char* name, int enabled);
/// Sets `enabled` on all handlers of one address.
int mh_db_switch_by_addr(const char* address, int enabled);
/// Gives the handlers of one address to another; they replace equal ones that it has.
int mh_db_move_addr(const char* old_address, const char* new_address);
/// Copies handlers, all or none; the copies are not protected on restore. With both names: those of
/// old_name@old_domain to new_name@new_domain. With both names null: those of every address in exactly old_domain, to
/// the same name in new_domain. One name alone is refused.
int mh_db_clone(const char* old_name, const char* old_domain, const char* new_name, const char* new_domain);
/// The same, and the handlers that were copied are removed: both or neither.
int mh_db_move(const char* old_name, const char* old_domain, const char* new_name, const char* new_domain);
/// Applies an operation to every record of the list in one transaction; the first failure undoes it all. A null
/// connection: one of its own; one that is not open yet is opened.
int mh_db_do(const mh_list* list, kavro::SqliteConnection* connection,
             int (*operation)(kavro::SqliteConnection* connection, const mh_data* record));
/// Puts the enabled handlers of an address at the front of the list, highest priority first. On failure the list is
/// left as it was, or with some of them when memory ran out.
int mh_db_select(int queue, int type, const char* address, mh_list* list);
/// Puts the handlers whose address contains the fragment (wildcards as in LIKE) at the front of the list.
int mh_db_select_by_name(const char* fragment, mh_list* list);
