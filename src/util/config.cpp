// The table of the configuration file, its reader, and the known keys with their defaults. Values live until the
// process ends.
#include "util/config.h"

#include <fcntl.h>
#include <sys/types.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "process/descriptors.h"
#include "process/retry.h"
#include "util/c_memory.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

constexpr std::size_t kInitialCapacity = 20;

bool is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool is_name_character(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

char* skip_space(char* text) {
    while (is_space(*text)) {
        ++text;
    }
    return text;
}

bool is_at_value_end(const char* text) {
    return *text == '\0' || *text == '#';
}

/// Where the value ends that begins at `value`. Kept: each second space character in a row takes the mark of the one
/// before it back, so that at most the last character of trailing space is cut, and only from a run of odd length.
char* find_value_end(char* value) {
    char* trailing = nullptr;
    for (; !is_at_value_end(value); ++value) {
        trailing = is_space(*value) && trailing == nullptr ? value : nullptr;
    }
    return trailing != nullptr ? trailing : value;
}

/// Stores the definition of one line, which it cuts up in place; a line without one is passed over, a bad one logged.
/// 0, or -1 with errno when the table cannot grow.
int read_line(char* line, ConfTable* table) {
    char* name = skip_space(line);
    if (is_at_value_end(name)) {
        return 0;
    }
    char* nameEnd = name;
    while (is_name_character(*nameEnd)) {
        ++nameEnd;
    }
    if (*nameEnd != '\0' && !is_space(*nameEnd)) {
        kavro_log(KAVRO_LOG_USER_WARNING, "Invalid variable definition %s\nExpected a space after variable name\n",
                  name);
        return 0;
    }
    char* value = skip_space(nameEnd);
    if (is_at_value_end(value)) {
        kavro_log(KAVRO_LOG_USER_WARNING, "Invalid variable definition %s\nExpected a value", name);
        return 0;
    }
    *nameEnd = '\0';
    *find_value_end(value) = '\0';
    return conf_set_r(name, value, table);
}

/// The entry of that name by looking at each, or null.
ConfEntry* find_entry(const char* name, const ConfTable* table) {
    ConfEntry* end = table->entries + table->count;
    ConfEntry* found =
        std::find_if(table->entries, end, [name](const ConfEntry& entry) { return !std::strcmp(entry.name, name); });
    return found == end ? nullptr : found;
}

}  // namespace

int cmp_conf(const void* left, const void* right) {
    return std::strcmp(static_cast<const ConfEntry*>(left)->name, static_cast<const ConfEntry*>(right)->name);
}

int conf_init_r(ConfTable* table) {
    if (table->entries == nullptr) {
        table->entries = static_cast<ConfEntry*>(std::calloc(kInitialCapacity, sizeof(ConfEntry)));
        if (table->entries == nullptr) {
            return -1;
        }
        table->capacity = kInitialCapacity;
        table->count = 0;
        table->sorted = 1;
        return 0;
    }
    if (table->count < table->capacity) {
        return 0;
    }
    std::size_t capacity = table->capacity * 2;
    if (capacity <= table->count) {
        capacity = table->count + kInitialCapacity;
    }
    auto* entries = static_cast<ConfEntry*>(::reallocarray(table->entries, capacity, sizeof(ConfEntry)));
    if (entries == nullptr) {
        kavro_log(KAVRO_LOG_USER_WARNING, "Unable to read configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    std::fill(entries + table->count, entries + capacity, ConfEntry{});
    table->entries = entries;
    table->capacity = capacity;
    return 0;
}

int conf_set_r(const char* name, const char* value, ConfTable* table) {
    kavro::CString nameCopy(::strdup(name));
    kavro::CString valueCopy(::strdup(value));
    if (nameCopy == nullptr || valueCopy == nullptr) {
        kavro_log(KAVRO_LOG_USER_WARNING, "Unable to form configuration: %s", std::strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    if (ConfEntry* entry = find_entry(name, table)) {
        std::free(entry->value);
        entry->value = valueCopy.release();
        return 0;
    }
    if (conf_init_r(table) == -1) {
        return -1;
    }
    table->entries[table->count++] = {nameCopy.release(), valueCopy.release()};
    table->sorted = 0;
    return 0;
}

void conf_finalize_r(ConfTable* table) {
    if (table->sorted == 0) {
        std::qsort(table->entries, table->count, sizeof(ConfEntry), cmp_conf);
        table->sorted = 1;
    }
}

const char* conf_get_r(const char* name, const ConfTable* table) {
    if (table->entries == nullptr) {
        return nullptr;
    }
    const ConfEntry* entry = nullptr;
    if (table->sorted != 0) {
        const ConfEntry wanted{const_cast<char*>(name), nullptr};
        entry = static_cast<const ConfEntry*>(
            std::bsearch(&wanted, table->entries, table->count, sizeof(ConfEntry), cmp_conf));
    } else {
        entry = find_entry(name, table);
    }
    return entry == nullptr ? nullptr : entry->value;
}

int conf_read_file_r(const char* path, ConfTable* table) {
    if (conf_init_r(table) == -1) {
        return -1;
    }
    kavro::QuietFdOwner fd(kavro::openRegular(path, O_RDONLY));
    const kavro::CFile file = fd.empty() ? nullptr : kavro::readingStream(fd);
    if (file == nullptr) {
        const kavro::ErrnoKeeper keeper;
        kavro_log(KAVRO_LOG_USER_WARNING, "unable to open configuration file %s: %s\n", path,
                  std::strerror(keeper.saved()));
        return -1;
    }
    char* buffer = nullptr;
    std::size_t size = 0;
    int result = 0;
    while (result == 0 && ::getline(&buffer, &size, file.get()) != -1) {
        result = read_line(buffer, table);
    }
    const kavro::ErrnoKeeper keeper;
    const kavro::CString owner(buffer);
    if (result == -1) {
        return -1;
    }
    conf_finalize_r(table);
    if (std::feof(file.get()) == 0 || std::ferror(file.get()) != 0) {
        kavro_log(KAVRO_LOG_USER_WARNING, "Unable to read configuration file: %s", std::strerror(keeper.saved()));
        return -1;
    }
    return 0;
}

void conf_free_r(ConfTable* table) {
    if (table == nullptr) {
        return;
    }
    for (std::size_t i = 0; i < table->count; ++i) {
        std::free(table->entries[i].name);
        std::free(table->entries[i].value);
    }
    std::free(table->entries);
    std::free(table);
}

namespace {

constexpr const char* kConfigurationFile = "/etc/zcp/zcp.conf";

bool arrayInitialized = false;

}  // namespace

ConfTable* theZcpConfHash = nullptr;
const char* theZcpConfArray[kKnownKeys];

const char* const theZcpConfNames[kKnownKeys] = {
    "_MIN_POSSIBLE_ZCP_CONF_VAR_NAME",
    "KAVRO_MAILNAMES_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "MYSQL_SOCKET",
    "SA_MAX_MAIL_SIZE",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_ZCP_CONF_VAR_NAME",
};

const char* const theZcpConfDefauls[kKnownKeys] = {
    "_MIN_POSSIBLE_ZCP_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/usr/sbin/rblsmtpd",
    "/opt/zcp/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/awstats",
    "/usr/share/awstats/tools",
    "/usr/lib/cgi-bin",
    "/etc/awstats",
    "/var/lib/tomcat7",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/postgresql//main",
    "/usr/lib/postgresql/9.1/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/zcp/dumps",
    "/tmp",
    "/var/named/run-root",
    "apache2",
    "/var/log/apache2",
    "/etc/apache2/conf.d",
    "/etc/apache2",
    "/var/www/vhosts",
    "/var/run/mysqld/mysqld.sock",
    "256000",
    "/opt/zcp",
    "_MAX_POSSIBLE_ZCP_CONF_VAR_VALUE",
};

int autoprepend() {
    if (theZcpConfHash != nullptr) {
        return 0;
    }
    auto* table = static_cast<ConfTable*>(std::calloc(1, sizeof(ConfTable)));
    if (table == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Not enough memory to allocate Kavro runtime configuration structure");
        return -1;
    }
    if (conf_read_file_r(kConfigurationFile, table) == -1) {
        const kavro::ErrnoKeeper keeper;
        conf_free_r(table);
        return -1;
    }
    theZcpConfHash = table;
    return 0;
}

const char* zcpConfGet(const char* name) {
    return autoprepend() == 0 ? conf_get_r(name, theZcpConfHash) : nullptr;
}

const char* zcpConfGetByIndex(std::size_t index) {
    if (!arrayInitialized) {
        std::fill(std::begin(theZcpConfArray), std::end(theZcpConfArray), nullptr);
        arrayInitialized = true;
    }
    if (theZcpConfArray[index] == nullptr) {
        theZcpConfArray[index] = zcpConfGet(theZcpConfNames[index]);
    }
    return theZcpConfArray[index];
}

const char* zcpConfGetDefaultByIndex(std::size_t index) {
    const char* value = zcpConfGetByIndex(index);
    return value != nullptr ? value : theZcpConfDefauls[index];
}

const char* zcpConfGetDefault(const char* name) {
    // Kept: the upper sentinel is never compared.
    for (std::size_t index = 0; index + 1 < kKnownKeys; ++index) {
        if (std::strcmp(theZcpConfNames[index], name) == 0) {
            return zcpConfGetDefaultByIndex(index);
        }
    }
    kavro_log(KAVRO_LOG_ERROR, "variable '%s' was found neither in %s, nor in compile-time defaults", name,
              kConfigurationFile);
    return nullptr;
}
