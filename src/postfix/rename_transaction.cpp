// The way back of a whole-table edit, and of several steps.
#include "postfix/rename_transaction.h"

#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "postfix/postfix_errors.h"
#include "postfix/table_rewrite.h"
#include "util/log.h"

namespace kavro::mail::postfix {

namespace {

void append(std::string& text, const database::RecordView& record) {
    text.append(record.key).append(1, ' ').append(record.value).append(1, '\n');
}

template <typename Visitor>
void forEachRecord(std::string_view text, const Visitor& visit) {
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        const std::string_view line = text.substr(start, end - start);
        database::RecordView record;
        database::splitRecord(line, record);
        visit(line, record);
        start = end + 1;
    }
}

/// Line filter of the way back. Lets pass what the edit did not touch; the remembered records follow at the end, each
/// key once.
class RestoringFilter {
public:
    RestoringFilter(std::string_view changed, std::string_view targets, const StepJournal::LineFilter& forward) {
        std::unordered_set<std::string> madeKeys;
        std::string made;
        forEachRecord(changed, [&](std::string_view line, const database::RecordView& record) {
            originals_.emplace(record.key, record.value);
            made = line;
            if (forward(made)) {
                madeKeys.insert(made.substr(0, made.find(' ')));
                made_.insert(made);
            }
        });
        // A record that the edit gave no rival to stayed as it was and needs no care.
        forEachRecord(targets, [&](std::string_view, const database::RecordView& record) {
            if (madeKeys.contains(std::string(record.key))) {
                originals_.emplace(record.key, record.value);
            }
        });
    }

    bool operator()(std::string& line) {
        database::RecordView record;
        if (!database::splitRecord(line, record)) {
            return true;
        }
        text_.assign(record.key).append(1, ' ').append(record.value);
        const bool made = made_.contains(text_);
        const auto original = originals_.find(record.key);
        if (original == originals_.end()) {
            return !made;
        }
        if (made && record.value != original->second) {
            return false;
        }
        // As it was; or neither so nor as the edit made it: somebody wrote it since, and that is newer.
        originals_.erase(original);
        return true;
    }

    void writeOriginals(std::ostream& text) const {
        for (const auto& [key, value] : originals_) {
            text << key << ' ' << value << '\n';
        }
    }

private:
    std::unordered_map<std::string_view, std::string_view> originals_;
    std::unordered_set<std::string> made_;
    std::string text_;
};

}  // namespace

void StepJournal::rememberChanged(const database::RecordView& record) {
    append(changed_, record);
}

void StepJournal::rememberTarget(const database::RecordView& record) {
    append(targets_, record);
}

void StepJournal::restore(const std::string& table, const LineFilter& forward) const {
    TableRewrite rewrite(table);
    restore([&table](const process::Consumer& consumer) { dumpTable(table, consumer); }, forward, rewrite.text());
    rewrite.rebuild();
}

void StepJournal::restore(const std::function<void(const process::Consumer&)>& dump, const LineFilter& forward,
                          std::ostream& text) const {
    RestoringFilter filter(changed_, targets_, forward);
    database::DataStreamFilter<std::reference_wrapper<RestoringFilter>> stream(filter, text);
    dump([&stream](const std::vector<char>& chunk) { stream.filterChunk(chunk); });
    stream.filterTail();
    filter.writeOriginals(text);
}

RenameTransaction::RenameTransaction() : turn_("mxadmin rename", MKLock::kHashedName, MKLock::kWait) {
}

RenameTransaction::~RenameTransaction() {
    bool failed = false;
    while (!steps_.empty()) {
        try {
            steps_.back().undo();
        } catch (...) {
            failed = true;
            if (logText_ == nullptr) {
                reportFailedRestore(steps_.back().humanName);
            }
        }
        steps_.pop_back();
    }
    if (failed && logText_ != nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "%s", logText_);
    }
}

void RenameTransaction::whole(const char* humanName, const Action& action, Action undo) {
    arm({humanName, [] {}});
    action();
    steps_.back().undo.swap(undo);
}

void RenameTransaction::inParts(const char* humanName, const Action& action, Action undo) {
    arm({humanName, std::move(undo)});
    action();
}

void RenameTransaction::arm(Step step) {
    steps_.push_back(std::move(step));
}

}  // namespace kavro::mail::postfix
