// The filters that a table's dump passes through on its way into the rebuilt table: stream to lines, line to key and
// value, value to list elements. Small value types, composed by templates. A filter takes a string by reference, may
// rewrite it, and answers whether to keep it. They run once per record of tables with a million of them: scratch
// strings are members and keep their memory.
#pragma once

#include <cctype>
#include <cstring>
#include <iostream>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kavro::mail::postfix::database {

/// Separator of list elements.
inline bool isListSep(char c) {
    return c == ',' || std::isspace(static_cast<unsigned char>(c)) != 0;
}

/// A line's key and value; empty value: there is none. Views into the line.
struct RecordView {
    std::string_view key;
    std::string_view value;
};

/// Cuts a line at its first run of blanks and tabs; the value ends before trailing ones. False for a line without any.
inline bool splitRecord(std::string_view line, RecordView& record) {
    constexpr std::string_view kSeparators = " \t";
    const std::size_t keyEnd = line.find_first_of(kSeparators);
    if (keyEnd == std::string_view::npos) {
        return false;
    }
    record.key = line.substr(0, keyEnd);
    const std::size_t valueStart = line.find_first_not_of(kSeparators, keyEnd);
    record.value = valueStart == std::string_view::npos
                       ? std::string_view()
                       : line.substr(valueStart, line.find_last_not_of(kSeparators) + 1 - valueStart);
    return true;
}

/// Cuts a dump that arrives in pieces of any size into lines and writes those that the line filter keeps.
template <typename LineFilter>
class DataStreamFilter {
public:
    /// `out` must outlive the filter.
    DataStreamFilter(const LineFilter& filter, std::ostream& out) : filter_(filter), out_(&out) {}

    void filterChunk(const std::vector<char>& chunk) {
        const char* position = chunk.data();
        const char* const end = position + chunk.size();
        while (position != end) {
            const void* lineFeed = std::memchr(position, '\n', static_cast<std::size_t>(end - position));
            if (lineFeed == nullptr) {
                pending_.append(position, end);
                return;
            }
            pending_.append(position, static_cast<const char*>(lineFeed));
            finishLine();
            position = static_cast<const char*>(lineFeed) + 1;
        }
    }

    /// To be called after the dump: its last line may lack a line feed.
    void filterTail() {
        if (!pending_.empty()) {
            finishLine();
        }
    }

private:
    void finishLine() {
        if (filter_(pending_)) {
            pending_ += '\n';
            out_->write(pending_.data(), static_cast<std::streamsize>(pending_.size()));
        }
        pending_.clear();
    }

    LineFilter filter_;
    std::ostream* out_;
    std::string pending_;
};

/// Line filter: runs one filter on the key and one on the value. What it keeps comes out as key, one blank, value.
template <typename KeyFilter, typename ValueFilter>
class KeyValueFilter {
public:
    KeyValueFilter(const KeyFilter& keyFilter, const ValueFilter& valueFilter)
        : keyFilter_(keyFilter), valueFilter_(valueFilter) {}

    bool operator()(std::string& line) {
        RecordView record;
        if (!splitRecord(line, record)) {
            std::clog << "invalid key/value '" << line << "'" << std::endl;
            return false;
        }
        key_.assign(record.key);
        value_.assign(record.value);
        if (value_.empty() || !keyFilter_(key_) || !valueFilter_(value_)) {
            return false;
        }
        line.assign(key_).append(1, ' ').append(value_);
        return true;
    }

private:
    KeyFilter keyFilter_;
    ValueFilter valueFilter_;
    std::string key_;
    std::string value_;
};

/// Value filter: runs an element filter on each element of a list. The list is written back with ", " between its
/// elements; a value that loses all of them is dropped.
template <typename ElementFilter>
class ValueListFilter {
public:
    explicit ValueListFilter(const ElementFilter& filter) : filter_(filter) {}

    bool operator()(std::string& value) {
        list_.clear();
        const char* position = value.data();
        const char* const end = position + value.size();
        while (position != end) {
            if (isListSep(*position)) {
                ++position;
                continue;
            }
            const char* const start = position;
            while (position != end && !isListSep(*position)) {
                ++position;
            }
            element_.assign(start, position);
            if (filter_(element_)) {
                if (!list_.empty()) {
                    list_ += ", ";
                }
                list_ += element_;
            }
        }
        value.swap(list_);
        return !value.empty();
    }

private:
    ElementFilter filter_;
    std::string element_;
    std::string list_;
};

/// Line filter: one element filter for the key and for every element of the value.
template <typename ElementFilter>
class ElementsFilter : public KeyValueFilter<ElementFilter, ValueListFilter<ElementFilter>> {
public:
    explicit ElementsFilter(const ElementFilter& filter)
        : KeyValueFilter<ElementFilter, ValueListFilter<ElementFilter>>(filter,
                                                                        ValueListFilter<ElementFilter>(filter)) {}
};

/// Element filter: replaces one element, also in the form that ends in "/". Keeps everything. Both strings must outlive
/// it.
class ReplaceElementFilterRef {
public:
    ReplaceElementFilterRef(const std::string& oldElement, const std::string& newElement)
        : old_(&oldElement), new_(&newElement) {}

    bool operator()(std::string& element) const {
        if (element.compare(0, old_->size(), *old_) == 0) {
            if (element.size() == old_->size()) {
                element = *new_;
            } else if (element.size() == old_->size() + 1 && element.back() == '/') {
                element.assign(*new_).append(1, '/');
            }
        }
        return true;
    }

private:
    const std::string* old_;
    const std::string* new_;
};

}  // namespace kavro::mail::postfix::database
