// Records of mailing lists under domain aliases.
#include "postfix/list_aliases.h"

#include <vector>

#include "postfix/addresses.h"
#include "postfix/database_helper.h"
#include "postfix/tables.h"
#include "process/report_exception.h"

namespace kavro::mail::postfix {

namespace {

template <typename Change>
int reportingExceptions(const Change& change) {
    try {
        change();
        return 0;
    } catch (const std::exception& error) {
        reportException(error);
        return 1;
    } catch (...) {
        reportUntypedException();
        return 2;
    }
}

}  // namespace

int createListAliasForDomainAlias(const std::string& domain, const std::string& domainAlias,
                                  const std::string& listName) {
    return reportingExceptions([&] {
        const std::vector<DatabaseHelper::Record> records{
            {addressOf(listName, domainAlias), addressOf(listName, domain)}};
        DatabaseHelper::addRecords(kVirtualTable, records.begin(), records.end());
    });
}

int removeListAliasForDomainAlias(const std::string& domainAlias, const std::string& listName) {
    return reportingExceptions([&] {
        const std::vector<std::string> keys{addressOf(listName, domainAlias)};
        DatabaseHelper::removeRecords(kVirtualTable, keys.begin(), keys.end());
    });
}

}  // namespace kavro::mail::postfix
