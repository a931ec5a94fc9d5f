// Session mail data from the lists of the command line.
#include "frontend/mail_db_options.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "frontend/option_groups.h"
#include "frontend/parse_arguments.h"
#include "session/session_mail_data.h"
#include "session/session_queries.h"

namespace {

ProgramOptionsHelper parsed(const std::vector<std::string>& arguments) {
    ProgramOptionsHelper helper("test", "--command");
    helper.addOptions()(MailDbOptions());
    addDefaultQuotaOptions(helper);
    parseArguments(helper, arguments);
    return helper;
}

TEST(MailDataSource, ListsFillTheSessionInTheirOrderAndEmptyNamesNameNothing) {
    const ProgramOptionsHelper helper = parsed(
        {"--domain-aliases=b.test, a.test,", "--mail-addresses=zoe,z;,lost;bob, b1", "--default-domain-quota=-7"});
    MailDbOptionsProcessor processor(helper);
    processor.withDomain("line.test").withDomainAlias("a.test").withDomainAlias("c.test");
    processor.withMailname("bob").withMailAlias("b2").withMailAlias("b1");
    const MailDbStdinReader reader(processor, true);
    const mail_db_data_t& data = *session_mail_db_info;
    EXPECT_STREQ(data.domain_name, "line.test");
    EXPECT_EQ(data.domain_quota, -7);
    EXPECT_THAT(std::vector<std::string>(data.domain_aliases, data.domain_aliases + data.domain_aliases_count),
                testing::ElementsAre("b.test", "a.test", "c.test"));
    ASSERT_EQ(data.mails_count, 2U);
    EXPECT_STREQ(data.mails[0].name, "bob");
    EXPECT_THAT(std::vector<std::string>(data.mails[0].aliases, data.mails[0].aliases + data.mails[0].aliases_count),
                testing::ElementsAre("b1", "b2"));
    EXPECT_EQ(data.mails[1].quota, -1);
    EXPECT_EQ(find_session_mail("zoe"), &data.mails[1]);
}

TEST(MailDataSource, BadInputAndMisuseAreErrors) {
    for (const char* list : {"--domain-aliases=a.test,#a", "--domain-aliases=a\\", "--mail-addresses=#x",
                             "--mail-addresses=info,a\"b", "--mail-addresses=info,\xFF", "--mail-addresses=a\nb"}) {
        const ProgramOptionsHelper helper = parsed({list});
        EXPECT_THROW(MailDbStdinReader(MailDbOptionsProcessor(helper).withDomain("line.test"), true),
                     std::runtime_error)
            << list;
        free_session_mail_db_info();
    }
    EXPECT_THROW(MailDbOptionsProcessor(parsed({})).withMailAlias("x"), std::runtime_error);
}

}  // namespace
