// Option values, and the rules of the parser around them.
#include <gmock/gmock.h>

#include <boost/program_options/value_semantic.hpp>

#include "frontend/option_groups.h"
#include "frontend/option_types.h"
#include "frontend/parse_arguments.h"
#include "frontend/program_options_helper.h"
#include "util/idn.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

/// The mailname options and the mail data lists, parsed.
ProgramOptionsHelper parsed(const std::vector<std::string>& arguments) {
    ProgramOptionsHelper helper("test", "--command");
    addMailnameOptions(helper);
    addMailDataOptions(helper);
    parseArguments(helper, arguments);
    return helper;
}

ProgramOptionsHelper parsedList(const std::string& option, const std::string& value) {
    return parsed({"--domain-name=a.test", "--mailname=m", option, value});
}

template <typename Exception>
std::string messageOf(const std::vector<std::string>& arguments) {
    try {
        parsed(arguments);
    } catch (const Exception& error) {
        return error.what();
    }
    return "nothing thrown";
}

TEST(NameOptions, AreConvertedLowerCasedAndChecked) {
    const ProgramOptionsHelper helper = parsed({"--domain-name=M\xC3\xBCnchen.TEST", "--mailname=John.O'Neil+X"});
    EXPECT_EQ(domainOption(helper), "xn--mnchen-3ya.test");
    EXPECT_EQ(mailnameOption(helper), "john.o'neil+x");
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

TEST(Parser, ReportsTheMissingOptionDeclaredLast) {
    EXPECT_EQ(messageOf<MissingMandatoryOption>({}), "mandatory option \"--mailname\" is not specified");
}

TEST(UnknownRecipients, CatchAllGoesBeforeRejectAndTextsMustFitARecord) {
    const auto build = [](const std::vector<std::string>& arguments) {
        ProgramOptionsHelper helper("test", "--command");
        formNotexistingMailOptions(helper);
        parseArguments(helper, arguments);
        const NonexistingMailnamesAction action = buildNotexistingMailnamesAction(helper);
        return std::to_string(action.kind) + "|" + action.bounceText + "|" + action.catchAllAddress;
    };
    EXPECT_EQ(build({"--set-reject", "--email=Me@B.test", "--phrase=No\nuser"}), "2||");
    EXPECT_EQ(build({"--set-reject", "--set-catchall", "--email=Me@B.test", "--phrase=x"}), "1||Me@B.test");
    for (const char* option : {"--email=a\nb@c.test", "--email=\xFF@c.test", "--phrase=\xFF"}) {
        EXPECT_THROW(build({option[2] == 'p' ? "--set-bounce" : "--set-catchall", option}), std::runtime_error)
            << option;
    }
}

}  // namespace
