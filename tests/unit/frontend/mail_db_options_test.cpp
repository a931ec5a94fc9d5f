// Where the session mail data comes from.
#include "frontend/mail_db_options.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "frontend/option_groups.h"
#include "frontend/parse_arguments.h"
#include "process/descriptors.h"
#include "session/session_mail_data.h"
#include "session/session_queries.h"

namespace {

constexpr const char* kDocument =
    R"({"domain":{"name":"doc.test","dom_aliases":[],"maillists":[],"mails":[{"name":"m","aliases":["x"]}]}})";

std::string loadedDomain() {
    return session_mail_db_info == nullptr ? "nothing" : session_mail_db_info->domain_name;
}

/// The domain whose data a reader loads; nothing of it may be left afterwards.
std::string load(const MailDbOptionsProcessor& processor, bool required) {
    std::string domain;
    {
        const MailDbStdinReader reader(processor, required);
        domain = loadedDomain();
    }
    EXPECT_EQ(loadedDomain(), "nothing");
    return domain;
}

class MailDataSource : public testing::Test {
protected:
    /// A pipe is standard input; it is not ready before it is fed.
    MailDataSource() {
        input_.create("pipe");
        ::dup2(input_.readEnd().get(), STDIN_FILENO);
        std::clearerr(stdin);
    }
    ~MailDataSource() noexcept override = default;
    void feed(const std::string& text) {
        ASSERT_EQ(::write(input_.writeEnd().get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        input_.writeEnd().close();
    }
    /// Parses the options of every source of mail data.
    const ProgramOptionsHelper& parse(const std::vector<std::string>& arguments) {
        helper_.addOptions()(MailDbOptions());
        addDefaultQuotaOptions(helper_);
        parseArguments(helper_, arguments);
        return helper_;
    }

    ProgramOptionsHelper helper_{"test", "--command"};
    kavro::PipeOwner input_;
};

TEST_F(MailDataSource, StandardInputWinsOverListsWhenItIsAskedFor) {
    MailDbOptionsProcessor processor(parse({"--wait-stdin", "--domain-aliases=a.test"}));
    processor.withDomain("line.test");
    EXPECT_TRUE(processor.isEnough());
    feed(kDocument);
    EXPECT_EQ(load(processor, false), "doc.test");
}

TEST_F(MailDataSource, NothingIsReadUnlessRequired) {
    MailDbOptionsProcessor processor(parse({}));
    processor.withDomain("line.test").withMailname("m");
    feed(kDocument);
    EXPECT_EQ(load(processor, false), "nothing");
    // The command's own names are no mail data, so the document is taken.
    EXPECT_EQ(load(processor, true), "doc.test");
}

TEST_F(MailDataSource, ListsFillTheSessionInTheirOrderAndEmptyNamesNameNothing) {
    MailDbOptionsProcessor processor(parse(
        {"--domain-aliases=b.test, a.test,", "--mail-addresses=zoe,z;,lost;bob, b1", "--default-domain-quota=-7"}));
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

TEST_F(MailDataSource, BadInputAndMisuseAreErrors) {
    for (const char* list : {"--domain-aliases=a.test,#a", "--domain-aliases=a\\", "--mail-addresses=#x",
                             "--mail-addresses=info,a\"b", "--mail-addresses=info,\xFF", "--mail-addresses=a\nb"}) {
        ProgramOptionsHelper lists("test", "--command");
        lists.addOptions()(MailDbOptions());
        parseArguments(lists, {list});
        EXPECT_THROW(MailDbStdinReader(MailDbOptionsProcessor(lists).withDomain("line.test"), true), std::runtime_error)
            << list;
        free_session_mail_db_info();
    }
    MailDbOptionsProcessor processor(parse({}));
    processor.withDomain("line.test");
    feed("{");
    EXPECT_THROW(MailDbStdinReader(processor, true), std::runtime_error);
    EXPECT_THROW(processor.withMailAlias("x"), std::runtime_error);
}

}  // namespace
