// A table's dump, cut into pieces of any size, through the filter of a rename: the pieces do not matter, and the way
// back gives the records as they were.
#include <map>
#include <sstream>

#include "fuzz.h"
#include "postfix/rename_transaction.h"

using namespace kavro::mail::postfix;

namespace {

using Records = std::map<std::string, std::string>;

/// What postmap(1) makes of a text: of records with one key it keeps the first.
Records records_in(std::string text) {
    Records records;
    while (!text.empty()) {
        const std::string line = take_line(text);
        database::RecordView record;
        if (!line.empty() && database::splitRecord(line, record) && !record.key.empty() && !record.value.empty()) {
            records.emplace(record.key, record.value);
        }
    }
    return records;
}

std::string dump_of(const Records& records) {
    std::string text;
    for (const auto& [key, value] : records) {
        text += key + "\t" + value + "\n";
    }
    return text;
}

template <typename Filter>
std::string filtered(const std::string& text, const Filter& filter, std::size_t piece) {
    std::ostringstream out;
    database::DataStreamFilter<Filter> stream(filter, out);
    for (std::size_t i = 0; i < text.size(); i += piece) {
        const std::string part = text.substr(i, piece);
        stream.filterChunk(std::vector<char>(part.begin(), part.end()));
    }
    stream.filterTail();
    return out.str();
}

}  // namespace

void check(std::string& text) {
    std::clog.setstate(std::ios::failbit);
    const bool subdomains = text.size() % 2 == 1;
    const database::ElementsFilter<ReplaceDomainPart> forward(ReplaceDomainPart("a", "b", subdomains));
    const std::size_t piece = text.empty() ? 1 : static_cast<std::uint8_t>(text[0]) % 16 + 1;
    require(filtered(text, forward, piece) == filtered(text, forward, text.size() + 1));

    const Records before = records_in(text);
    StepJournal journal;
    const JournalingFilter<database::ElementsFilter<ReplaceDomainPart>, ReplaceDomainPart> step(
        forward, ReplaceDomainPart("b", "a", subdomains), journal);
    const Records renamed = records_in(filtered(dump_of(before), step, piece));
    std::ostringstream back;
    const std::string dump = dump_of(renamed);
    journal.restore([&dump](const auto& consumer) { consumer(std::vector<char>(dump.begin(), dump.end())); }, forward,
                    back);
    require(records_in(back.str()) == before);
}
