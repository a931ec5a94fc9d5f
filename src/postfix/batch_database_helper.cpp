// The collecting side of a batch.
#include "postfix/batch_database_helper.h"

#include "postfix/postfix_errors.h"

namespace kavro::mail::postfix {

template <typename List>
List& BatchDatabaseHelper::cached(std::map<std::string, List>& cache, const std::string& table) {
    auto entry = cache.find(table);
    if (entry == cache.end()) {
        const auto [place, inserted] = cache.emplace(table, List());
        if (!inserted) {
            throw PostfixDatabaseError("unable to form record cache");
        }
        entry = place;
    }
    return entry->second;
}

template BatchDatabaseHelper::Records& BatchDatabaseHelper::cached(std::map<std::string, Records>&, const std::string&);
template BatchDatabaseHelper::Keys& BatchDatabaseHelper::cached(std::map<std::string, Keys>&, const std::string&);

void BatchDatabaseHelper::addChange(const std::string& table, const std::string& key, const std::string& value) {
    const Records change{{key, value}};
    addChanges(table, change.begin(), change.end());
}

void BatchDatabaseHelper::commit() {
    for (const auto& [table, records] : additions_) {
        apply(table, records.begin(), records.end());
    }
    additions_.clear();
    for (const auto& [table, keys] : removals_) {
        DatabaseHelper::removeRecords(table, keys.begin(), keys.end());
    }
    removals_.clear();
}

}  // namespace kavro::mail::postfix
