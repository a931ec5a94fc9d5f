// Option values, and the rules of the parser around them.
#include <gmock/gmock.h>

#include <boost/program_options/value_semantic.hpp>

#include "frontend/arguments.h"
#include "frontend/nonexisting_action_options.h"
#include "frontend/option_groups.h"
#include "frontend/option_types.h"
#include "frontend/program_options_helper.h"
#include "util/idn.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// The mailname options and the mail data lists, parsed.
ProgramOptionsHelper parsed(Arguments arguments) {
    ProgramOptionsHelper helper("test", "--command");
    addMailnameOptions(helper);
    addMailDataOptions(helper);
    formNotexistingMailOptions(helper);
    helper.parse(arguments.argc(), arguments.argv());
    return helper;
}

ProgramOptionsHelper parsedList(const std::string& option, const std::string& value) {
    return parsed({"--domain-name=a.test", "--mailname=m", option, value});
}

template <typename Exception>
std::string messageOf(Arguments arguments) {
    try {
        parsed(std::move(arguments));
    } catch (const Exception& error) {
        return error.what();
    }
    return "nothing thrown";
}

TEST(NameOptions, AreConvertedLowerCasedAndChecked) {
    const ProgramOptionsHelper helper = parsed({"--domain-name",
                                                "B\xC3\xBC"
                                                "cher.TEST",
                                                "--mailname=John.O'Neil+X"});
    EXPECT_EQ(domainOption(helper), "xn--bcher-kva.test");
    EXPECT_EQ(mailnameOption(helper), "john.o'neil+x");
    EXPECT_EQ(messageOf<std::runtime_error>({"--domain-name=-A.test"}), "-a.test - domain has incorrect format.");
    EXPECT_EQ(messageOf<std::runtime_error>({"--mailname=J\xC3\xB6rg"}),
              "j\xC3\xB6rg - local part of mailname has incorrect format.");
    EXPECT_EQ(messageOf<std::runtime_error>({"--mailname", ""}), " - local part of mailname has incorrect format.");
    EXPECT_EQ(messageOf<kavro::idn::IdnaError>({"--domain-name=a..test"}), "Invalid length");
    EXPECT_THROW(parsed({"--mailname", "two words"}), boost::program_options::error);
}

TEST(MailAddresses, KeepEverySeparatorAndTheLastOfEqualNames) {
    const std::vector<std::pair<std::string, testing::Matcher<MailDbMailAddressesList::Map>>> cases = {
        {"info,sales,support;bob", ElementsAre(Pair("bob", IsEmpty()), Pair("info", ElementsAre("sales", "support")))},
        {"info, sales", ElementsAre(Pair("info", ElementsAre("", "sales")))},
        {";info\tx;;", ElementsAre(Pair("info", ElementsAre("x")))},
        {"info,a;Bob;info,b,b", ElementsAre(Pair("Bob", IsEmpty()), Pair("info", ElementsAre("b", "b")))},
        {"", IsEmpty()},
    };
    for (const auto& [value, expected] : cases) {
        EXPECT_THAT(parsedList("--mail-addresses", value).get<MailDbMailAddressesList>("mail-addresses").mails(),
                    expected)
            << value;
    }
}

TEST(DomainAliases, KeepEverySeparatorAndTheirOrder) {
    EXPECT_THAT(parsedList("--domain-aliases", "b.test,,A.test").get<MailDbDomainAliasesList>("domain-aliases").names(),
                ElementsAre("b.test", "", "A.test"));
    EXPECT_THAT(parsedList("--domain-aliases", "").get<MailDbDomainAliasesList>("domain-aliases").names(), IsEmpty());
    EXPECT_THROW(parsed({"--domain-aliases=a", "--domain-aliases=b"}), boost::program_options::error);
}

TEST(Parser, TakesWholeOptionNamesAndPassesOverOtherWords) {
    EXPECT_EQ(mailnameOption(parsed({"stray", "--mailname", "m", "--domain-name=a.test", "more"})), "m");
    EXPECT_EQ(messageOf<boost::program_options::error>({"--domain", "a.test", "--mailname=m"}),
              "unrecognised option '--domain'");
}

TEST(Parser, ReportsTheMissingOptionDeclaredLast) {
    EXPECT_EQ(messageOf<MissingMandatoryOption>({}), "mandatory option \"--mailname\" is not specified");
    EXPECT_EQ(messageOf<MissingMandatoryOption>({"--mailname=m"}),
              "mandatory option \"--domain-name\" is not specified");
}

TEST(StandardParse, EndsWithTheUsageForOptionErrorsOnly) {
    const auto parse = [](Arguments arguments) {
        ProgramOptionsHelper helper("test", "--command");
        addDiskQuotaOption(helper, false);
        addMailnameOptions(helper);
        standardOptionsParse(helper, arguments.argc(), arguments.argv());
    };
    EXPECT_EXIT(parse({"--disk-quota=5x"}), testing::ExitedWithCode(1), "'5x'.* is invalid");
    EXPECT_EXIT(parse({"--mailname=m"}), testing::ExitedWithCode(1), "mandatory option \"--domain-name\"");
    EXPECT_EXIT(parse({"-h", "stray"}), testing::ExitedWithCode(0), "");
    EXPECT_THROW(parse({"--mailname=.m"}), std::runtime_error);
}

TEST(NotexistingMail, BounceGoesBeforeCatchAllBeforeReject) {
    const auto build = [](std::initializer_list<std::string> options) {
        ProgramOptionsHelper helper("test", "--command");
        formNotexistingMailOptions(helper);
        Arguments arguments(options);
        helper.parse(arguments.argc(), arguments.argv());
        return buildNotexistingMailnamesAction(helper);
    };
    const NonexistingMailnamesAction bounce =
        build({"--set-reject", "--set-catchall", "--email=a@b.test", "--set-bounce", "--phrase", "No such\nuser"});
    EXPECT_EQ(bounce.kind, NonexistingMailnamesAction::Bounce);
    EXPECT_EQ(bounce.bounceText, "No such\nuser");
    EXPECT_EQ(build({"--set-bounce"}).bounceText, "");
    const NonexistingMailnamesAction catchAll = build({"--set-reject", "--set-catchall",
                                                       "--email=Me@b\xC3\xBC"
                                                       "cher.test"});
    EXPECT_EQ(catchAll.kind, NonexistingMailnamesAction::CatchAll);
    EXPECT_EQ(catchAll.catchAllAddress, "Me@xn--bcher-kva.test");
    EXPECT_EQ(build({"--set-reject"}).kind, NonexistingMailnamesAction::Reject);
    EXPECT_THROW(build({"--set-reject", "--set-catchall"}), MissingMandatoryOption);
    try {
        build({"--email=a@b.test", "--phrase=x"});
        FAIL() << "no action, and nothing thrown";
    } catch (const MissingMandatoryOption& error) {
        EXPECT_STREQ(error.what(),
                     "mandatory option \"--set-bounce\" or \"--set-catchall\" or \"--set-reject\" is not specified");
    }
}

}  // namespace
