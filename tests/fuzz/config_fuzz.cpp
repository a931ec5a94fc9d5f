// Any bytes as the configuration file: every entry is found under its name, once, and has no blanks around it.
#include <cstring>

#include "fuzz.h"
#include "util/config.h"

void check(std::string& input) {
    write_file("/tmp/config", input);
    auto* table = static_cast<ConfTable*>(std::calloc(1, sizeof(ConfTable)));
    require(conf_read_file_r("/tmp/config", table) == 0);
    for (std::size_t i = 0; i < table->count; ++i) {
        const ConfEntry& entry = table->entries[i];
        require(conf_get_r(entry.name, table) == entry.value && std::strpbrk(entry.name, " \t\n") == nullptr);
        require(i == 0 || cmp_conf(&table->entries[i - 1], &entry) < 0);
    }
    conf_free_r(table);
}
