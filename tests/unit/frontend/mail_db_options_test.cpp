// Where the session mail data comes from.
#include "frontend/mail_db_options.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>

#include "frontend/arguments.h"
#include "frontend/option_groups.h"
#include "process/descriptors.h"
#include "session/session_mail_data.h"
#include "session/session_queries.h"

namespace {

constexpr const char* kDocument =
    R"({"domain":{"name":"doc.test","dom_aliases":[],"maillists":[],"mails":[{"name":"m","aliases":["x"]}]}})";

/// Puts a pipe in the place of a standard descriptor for its lifetime.
class StandardPipe {
public:
    /// `input`: the program reads from it, else it writes to it.
    StandardPipe(int fd, bool input) : fd_(fd), saved_(::dup(fd)) {
        pipe_.create("pipe");
        ::dup2(input ? pipe_.readEnd().get() : pipe_.writeEnd().get(), fd);
        if (!input) {
            pipe_.writeEnd().close();
        }
        std::clearerr(stdin);
    }
    ~StandardPipe() noexcept {
        std::fflush(stdout);
        ::dup2(saved_.get(), fd_);
    }
    void feed(const std::string& text) {
        ASSERT_EQ(::write(pipe_.writeEnd().get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        pipe_.writeEnd().close();
    }
    /// Reads until the text ends so; returns all of it.
    std::string readUntil(const std::string& end) {
        std::string text;
        char byte = 0;
        while (!text.ends_with(end) && ::read(pipe_.readEnd().get(), &byte, 1) == 1) {
            text += byte;
        }
        return text;
    }

private:
    int fd_;
    kavro::FdOwner saved_;
    kavro::PipeOwner pipe_;
};

class MailDataSource : public testing::Test {
protected:
    /// Parses the options of every source of mail data.
    const ProgramOptionsHelper& parse(std::initializer_list<std::string> options) {
        Arguments arguments(options);
        helper_.addOptions()(MailDbOptions());
        addDefaultQuotaOptions(helper_);
        helper_.parse(arguments.argc(), arguments.argv());
        return helper_;
    }
    static std::string loadedDomain() {
        return session_mail_db_info == nullptr ? "nothing" : session_mail_db_info->domain_name;
    }

    ProgramOptionsHelper helper_{"test", "--command"};
    StandardPipe input_{STDIN_FILENO, true};
};

TEST_F(MailDataSource, StandardInputWinsOverListsWhenItIsAskedFor) {
    MailDbOptionsProcessor processor(parse({"--wait-stdin", "--domain-aliases=a.test"}));
    processor.withDomain("line.test");
    input_.feed(kDocument);
    {
        const MailDbStdinReader reader(processor, false);
        EXPECT_EQ(loadedDomain(), "doc.test");
    }
    EXPECT_EQ(loadedDomain(), "nothing");
}

TEST_F(MailDataSource, NothingIsReadUnlessRequired) {
    MailDbOptionsProcessor processor(parse({}));
    processor.withDomain("line.test").withMailname("m");
    input_.feed(kDocument);
    {
        const MailDbStdinReader reader(processor, false);
        EXPECT_EQ(loadedDomain(), "nothing");
    }
    // The command's own names are no mail data, so the document is taken.
    const MailDbStdinReader reader(processor, true);
    EXPECT_EQ(loadedDomain(), "doc.test");
}

TEST_F(MailDataSource, ListsFillTheSessionInTheirOrder) {
    MailDbOptionsProcessor processor(
        parse({"--domain-aliases=b.test,a.test", "--mail-addresses=zoe,z;bob,b1", "--default-domain-quota=-7"}));
    processor.withDomain("line.test").withDomainAlias("a.test").withDomainAlias("c.test");
    processor.withMailname("bob").withMailAlias("b2").withMailAlias("b1");
    const MailDbStdinReader reader(processor, true);
    const mail_db_data_t& data = *session_mail_db_info;
    EXPECT_STREQ(data.domain_name, "line.test");
    EXPECT_EQ(data.domain_quota, -7);
    EXPECT_EQ(data.maillists_count, 0U);
    EXPECT_THAT(std::vector<std::string>(data.domain_aliases, data.domain_aliases + data.domain_aliases_count),
                testing::ElementsAre("b.test", "a.test", "c.test"));
    ASSERT_EQ(data.mails_count, 2U);
    EXPECT_STREQ(data.mails[0].name, "bob");
    EXPECT_THAT(std::vector<std::string>(data.mails[0].aliases, data.mails[0].aliases + data.mails[0].aliases_count),
                testing::ElementsAre("b1", "b2"));
    EXPECT_STREQ(data.mails[1].name, "zoe");
    EXPECT_EQ(data.mails[1].quota, -1);
    EXPECT_EQ(find_session_mail("zoe"), &data.mails[1]);
}

TEST_F(MailDataSource, PromptsWhenNoInputIsReady) {
    MailDbOptionsProcessor processor(parse({}));
    processor.withDomain("line.test");
    StandardPipe output(STDOUT_FILENO, false);
    std::string prompt;
    std::thread user([&] {
        prompt = output.readUntil("abort.\n");
        input_.feed(kDocument);
    });
    const MailDbStdinReader reader(processor, true);
    user.join();
    EXPECT_EQ(loadedDomain(), "doc.test");
    EXPECT_EQ(prompt,
              "This command requires additional data to be passed via STDIN in JSON format.\n"
              "To get help on expected input data format call this utility with --help-stdin option.\n"
              "Type ^D (send EOF) to abort.\n");
}

TEST_F(MailDataSource, BadInputAndMisuseAreErrors) {
    MailDbOptionsProcessor processor(parse({}));
    processor.withDomain("line.test");
    input_.feed("{");
    EXPECT_THROW(MailDbStdinReader(processor, true), std::runtime_error);
    EXPECT_EQ(loadedDomain(), "nothing");
    EXPECT_THROW(processor.withMailAlias("x"), std::runtime_error);
}

}  // namespace
