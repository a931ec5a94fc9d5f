// The known keys with their compile-time defaults, and the accessors over the one configuration table of the process.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "util/config.h"
#include "util/errno_keeper.h"
#include "util/log.h"

namespace {

constexpr const char* kConfigurationFile = "/etc/zcp/zcp.conf";

bool arrayInitialized = false;

}  // namespace

ConfTable* theZcpConfHash = nullptr;
const char* theZcpConfArray[CONF_KNOWN_KEYS];

const char* const theZcpConfNames[CONF_KNOWN_KEYS] = {
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

const char* const theZcpConfDefauls[CONF_KNOWN_KEYS] = {
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
    for (std::size_t index = 0; index + 1 < CONF_KNOWN_KEYS; ++index) {
        if (std::strcmp(theZcpConfNames[index], name) == 0) {
            return zcpConfGetDefaultByIndex(index);
        }
    }
    kavro_log(KAVRO_LOG_ERROR, "variable '%s' was found neither in %s, nor in compile-time defaults", name,
              kConfigurationFile);
    return nullptr;
}
