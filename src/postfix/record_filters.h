// The filters that a table's dump passes through on its way into the rebuilt table: stream to lines, line to key and
// value, value to list elements. Small value types, composed by templates. A filter takes a string by reference, may
// rewrite it, and answers whether to keep it. They run once per record of tables with a million of them: scratch
// strings are members and keep their memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iostream>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kavro::mail::postfix::database {

/// Separator of list elements: a comma, or what isspace(3) finds in the C locale.
inline bool isListSep(char c) {
    return c == ',' || c == ' ' || (c >= '\t' && c <= '\r');
}

/// Separator of key and value. An object, so that algorithms inline it.
// NOLINTNEXTLINE(readability-identifier-naming): called like a function
inline constexpr auto isKeySeparator = [](char c) { return c == ' ' || c == '\t'; };

/// A line's key and value; empty value: there is none. Views into the line.
struct RecordView {
    std::string_view key;
    std::string_view value;
};

/// Cuts a line at its first run of blanks and tabs; the value ends before trailing ones. False for a line without any.
inline bool splitRecord(std::string_view line, RecordView& record) {
    const auto keyEnd = std::find_if(line.begin(), line.end(), isKeySeparator);
    if (keyEnd == line.end()) {
        return false;
    }
    record.key = std::string_view(line.begin(), keyEnd);
    const auto valueStart = std::find_if_not(keyEnd, line.end(), isKeySeparator);
    auto valueEnd = line.end();
    while (valueEnd != valueStart && isKeySeparator(valueEnd[-1])) {
        --valueEnd;
    }
    record.value = std::string_view(valueStart, valueEnd);
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
                break;
            }
            pending_.append(position, static_cast<const char*>(lineFeed));
            finishLine();
            position = static_cast<const char*>(lineFeed) + 1;
        }
        writeKept();
    }

    /// To be called after the dump: its last line may lack a line feed.
    void filterTail() {
        if (!pending_.empty()) {
            finishLine();
            writeKept();
        }
    }

    /// Whether any line so far was dropped, or came out with another text of key or value.
    bool changed() const noexcept { return changed_; }
    /// Lines that came.
    std::size_t read() const noexcept { return read_; }
    /// Lines that were written and will be read as a record, not as a comment or as more of the line before.
    std::size_t written() const noexcept { return written_; }

private:
    void finishLine() {
        ++read_;
        original_.assign(pending_);
        const bool kept = filter_(pending_);
        if (kept) {
            kept_.append(pending_).append(1, '\n');
            written_ += pending_.empty() || pending_.front() == '#' || isListSep(pending_.front()) ? 0U : 1U;
        }
        changed_ = changed_ || !kept || !isSameRecord();
        pending_.clear();
    }

    /// A dump has one tab between key and value, where a filter writes one blank. Any other white space before that
    /// tab would be read back as the end of the key.
    bool isSameRecord() const {
        const auto separator = std::find_if(original_.begin(), original_.end(), isKeySeparator);
        if (separator == original_.end() || *separator != '\t' || original_.size() != pending_.size()) {
            return false;
        }
        const auto keySize = static_cast<std::size_t>(separator - original_.begin());
        return isKeySeparator(pending_[keySize]) && pending_.compare(0, keySize, original_, 0, keySize) == 0 &&
               pending_.compare(keySize + 1, std::string::npos, original_, keySize + 1) == 0;
    }

    void writeKept() {
        out_->write(kept_.data(), static_cast<std::streamsize>(kept_.size()));
        kept_.clear();
    }

    LineFilter filter_;
    std::ostream* out_;
    std::string pending_;   ///< the beginning of a line
    std::string original_;  ///< the line as it came
    std::string kept_;      ///< lines to be written
    bool changed_ = false;
    std::size_t read_ = 0;
    std::size_t written_ = 0;
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

/// Element filter: replaces one element, also in the form that ends in "/". Keeps everything.
class ReplaceElementFilterRef {
public:
    ReplaceElementFilterRef(const std::string& oldElement, const std::string& newElement)
        : old_(oldElement), new_(newElement) {}

    bool operator()(std::string& element) const {
        if (element.compare(0, old_.size(), old_) == 0) {
            if (element.size() == old_.size()) {
                element = new_;
            } else if (element.size() == old_.size() + 1 && element.back() == '/') {
                element.assign(new_).append(1, '/');
            }
        }
        return true;
    }

private:
    std::string old_;
    std::string new_;
};

}  // namespace kavro::mail::postfix::database

namespace kavro::mail::postfix {

// What belongs to a mail domain. Comparison is exact, in bytes.

/// The item is the domain, or an address in it; with `subdomains` also whatever ends in "." and the domain.
inline bool liesInDomain(const std::string& item, const std::string& domain, bool subdomains) {
    if (item.size() < domain.size()) {
        return false;
    }
    const std::size_t start = item.size() - domain.size();
    // The byte in front first: it alone settles nearly every item of a large table.
    if (start != 0 && item[start - 1] != '@' && !(subdomains && item[start - 1] == '.')) {
        return false;
    }
    return item.compare(start, domain.size(), domain) == 0;
}

/// Drops what lies in the domain.
class NotInDomainFilter {
public:
    NotInDomainFilter(const std::string& domain, bool subdomains) : domain_(domain), subdomains_(subdomains) {}

    bool operator()(const std::string& item) const { return !liesInDomain(item, domain_, subdomains_); }

private:
    std::string domain_;
    bool subdomains_;
};

/// Moves what lies in the old domain to the new one. Keeps everything.
class ReplaceDomainPart {
public:
    ReplaceDomainPart(const std::string& oldDomain, const std::string& newDomain, bool subdomains)
        : old_(oldDomain), new_(newDomain), subdomains_(subdomains) {}

    bool operator()(std::string& item) const {
        if (liesInDomain(item, old_, subdomains_)) {
            item.replace(item.size() - old_.size(), old_.size(), new_);
        }
        return true;
    }

private:
    std::string old_;
    std::string new_;
    bool subdomains_;
};

/// Replaces a path's prefix, whatever follows it. Keeps everything.
class ReplaceDomainPath {
public:
    ReplaceDomainPath(const std::string& oldPrefix, const std::string& newPrefix) : old_(oldPrefix), new_(newPrefix) {}

    bool operator()(std::string& path) const {
        // Kept: no look at what follows the prefix, so the path of a longer name that begins alike changes, too.
        if (path.compare(0, old_.size(), old_) == 0) {
            path.replace(0, old_.size(), new_);
        }
        return true;
    }

private:
    std::string old_;
    std::string new_;
};

}  // namespace kavro::mail::postfix
