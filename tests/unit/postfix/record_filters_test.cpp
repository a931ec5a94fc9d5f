// Record filters: how a dump is cut, what each filter changes, what it must leave alone.
#include "postfix/record_filters.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace kavro::mail::postfix {
namespace {

using namespace database;

struct KeepAll {
    bool operator()(const std::string&) const { return true; }
};

template <typename LineFilter>
std::string filtered(const LineFilter& filter, const std::string& dump, std::size_t split = 0) {
    std::ostringstream out;
    DataStreamFilter<LineFilter> stream(filter, out);
    stream.filterChunk(std::vector<char>(dump.begin(), dump.begin() + static_cast<long>(split)));
    stream.filterChunk(std::vector<char>(dump.begin() + static_cast<long>(split), dump.end()));
    stream.filterTail();
    return out.str();
}

TEST(DataStreamFilter, CutsLinesAlikeWhereverAChunkEnds) {
    const std::string dump = "a@x\t1\n\nb@x\t2\nkey-alone\t \nc@x\t3";
    std::ostringstream reports;
    std::streambuf* const former = std::clog.rdbuf(reports.rdbuf());
    for (std::size_t split = 0; split <= dump.size(); ++split) {
        EXPECT_EQ(filtered(ElementsFilter(KeepAll()), dump, split), "a@x 1\nb@x 2\nc@x 3\n") << split;
    }
    reports.str("");
    EXPECT_EQ(filtered(ElementsFilter(KeepAll()), "good 1\nmalformed\n"), "good 1\n");
    std::clog.rdbuf(former);
    EXPECT_EQ(reports.str(), "invalid key/value 'malformed'\n");
}

TEST(DataStreamFilter, TellsWhetherARecordCameOutAsAnotherText) {
    struct Case {
        const char* dump;
        bool changed;
        std::size_t written;
    };
    for (const Case& c : {Case{"a@x\t1, 2\nb@x\t2\n", false, 2},
                          {"a@x\t1,2\n", true, 1},
                          {"a@x 1\n", true, 1},
                          {"a@x\t\t1\n", true, 1},
                          {"a@x\t1 \nb@x\t1\n", true, 2},
                          {"a@x\t1\nd@y\t1\n", true, 1},
                          {"a@x\t1\nold\t1\n", true, 2},
                          {"#a\t1\n\t1\nb\t1\n", false, 1},
                          {"", false, 0}}) {
        std::ostringstream out;
        const auto edit = [](std::string& item) {
            item = item == "old" ? "new" : item;
            return item != "d@y";
        };
        const ElementsFilter filter(edit);
        DataStreamFilter stream(filter, out);
        const std::string dump = c.dump;
        stream.filterChunk(std::vector<char>(dump.begin(), dump.end()));
        stream.filterTail();
        EXPECT_EQ(stream.changed(), c.changed) << dump;
        EXPECT_EQ(stream.written(), c.written) << dump;
    }
}

TEST(ValueListFilter, WritesEverySeparatorAnew) {
    for (const char* list : {"a@x,b@y", "a@x  b@y", "a@x,\tb@y", "a@x , b@y", "a@x\v\f\r,b@y", ",a@x,,b@y,"}) {
        EXPECT_EQ(filtered(ElementsFilter(KeepAll()), std::string("k \t") + list + " \t\n"), "k a@x, b@y\n") << list;
    }
    EXPECT_EQ(filtered(ElementsFilter(KeepAll()), "k ,,\n"), "");
}

TEST(ElementFilters, ChangeExactlyWhatTheyAreFor) {
    const std::string oldName = "d.test";
    const std::string newName = "new.example";
    const std::string prefix = "d.test";
    const ReplaceElementFilterRef element(oldName, newName);
    const ReplaceDomainPart domain(oldName, newName, false);
    const ReplaceDomainPart withSubdomains(oldName, newName, true);
    const ReplaceDomainPath path(prefix, newName);
    struct Case {
        const char* item;
        const char* element;
        const char* domain;
        const char* withSubdomains;
        const char* path;
    };
    for (const Case& c : {
             Case{"d.test", "new.example", "new.example", "new.example", "new.example"},
             {"d.test/", "new.example/", "d.test/", "d.test/", "new.example/"},
             {"d.test/x", "d.test/x", "d.test/x", "d.test/x", "new.example/x"},
             {"d.testing/x", "d.testing/x", "d.testing/x", "d.testing/x", "new.exampleing/x"},
             {"x@d.test", "x@d.test", "x@new.example", "x@new.example", "x@d.test"},
             {"@d.test", "@d.test", "@new.example", "@new.example", "@d.test"},
             {"x@s.d.test", "x@s.d.test", "x@s.d.test", "x@s.new.example", "x@s.d.test"},
             {"x@yd.test", "x@yd.test", "x@yd.test", "x@yd.test", "x@yd.test"},
             {"x@D.test", "x@D.test", "x@D.test", "x@D.test", "x@D.test"},
             {"x@d.test.org", "x@d.test.org", "x@d.test.org", "x@d.test.org", "x@d.test.org"},
             {"test", "test", "test", "test", "test"},
         }) {
        const auto apply = [&c](const auto& filter) {
            std::string item = c.item;
            EXPECT_TRUE(filter(item));
            return item;
        };
        EXPECT_EQ(apply(element), c.element);
        EXPECT_EQ(apply(domain), c.domain);
        EXPECT_EQ(apply(withSubdomains), c.withSubdomains);
        EXPECT_EQ(apply(path), c.path);
        EXPECT_EQ(NotInDomainFilter(oldName, false)(c.item), std::string(c.domain) == c.item) << c.item;
        EXPECT_EQ(NotInDomainFilter(oldName, true)(c.item), std::string(c.withSubdomains) == c.item) << c.item;
    }
}

}  // namespace
}  // namespace kavro::mail::postfix
