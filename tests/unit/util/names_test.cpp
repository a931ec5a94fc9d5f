// The name rules at their limits, and the conversions of internationalised names.
#include "util/names.h"

#include <gmock/gmock.h>

#include "util/c_memory.h"
#include "util/idn.h"
#include "util/support.h"

namespace {

using Strings = std::vector<std::string>;

const std::string longestMailname(245, 'a');
const std::string label63(63, 'a');
const std::string longestDomain = label63 + "." + label63 + "." + label63 + "." + label63;  // 255 bytes

TEST(Names, MailnameRules) {
    for (const auto& name : Strings{longestMailname, "a", "o'neil+box", "A.b-c_d&9", "-", "'"}) {
        EXPECT_EQ(is_mailname_valid(name.c_str()), 1) << name;
    }
    for (const auto& name :
         Strings{longestMailname + "a", "", ".a", "a.", "a..b", ".", "a b", "\xC3\xA4", "a@b", "a/b", "a\n"}) {
        EXPECT_EQ(is_mailname_valid(name.c_str()), 0) << name;
    }
}

TEST(Names, DomainNameRules) {
    for (const auto& name : Strings{longestDomain, "a", "a-b.c9", "a.b-"}) {
        EXPECT_EQ(is_domain_name_valid(name.c_str()), 1) << name;
    }
    for (const auto& name : Strings{longestDomain.substr(2) + ".aa", label63 + "a", "", ".a", "a.", "a..b", "-a.b",
                                    "a-.b", "b.-a", "a_b.c", "a b", "\xC3\xA4.b"}) {
        EXPECT_EQ(is_domain_name_valid(name.c_str()), 0) << name;
    }
}

TEST(Names, AddressIsSplitAtTheFirstAt) {
    EXPECT_EQ(is_full_mailname_valid((longestMailname + "@b.c").c_str()), 1);
    for (const auto& address : Strings{"a", "a@", "@b", "a@b@c", "a.@b", "a b@c", longestMailname + "a@b.c"}) {
        EXPECT_EQ(is_full_mailname_valid(address.c_str()), 0) << address;
    }
    char text[] = "AZaz@[`{\xC3\x84";
    EXPECT_STREQ(ascii_lower(text), "azaz@[`{\xC3\x84");
}

TEST(Idn, ConvertsTheDomainAndNothingElse) {
    EXPECT_EQ(kavro::idn::emailToAscii("jürgen@bücher.example"), "jürgen@xn--bcher-kva.example");
    EXPECT_EQ(kavro::idn::emailToAscii("postmaster"), "postmaster");
    EXPECT_EQ(kavro::idn::toUtf8("xn--bcher-kva.example"), "bücher.example");
    EXPECT_STREQ(kavro::CString(idn_email_toascii_safe("jürgen@bücher.example")).get(), "jürgen@xn--bcher-kva.example");
    EXPECT_EQ(idn_email_toascii("postmaster"), nullptr);
    EXPECT_STREQ(idn_url_toascii("https://a:b@bücher.example:1/c@d"), "https://a:b@xn--bcher-kva.example:1/c@d");
}

TEST(Idn, ReportsWhatCannotBeConverted) {
    const std::string tooLong(64, 'a');
    EXPECT_THAT([&] { kavro::idn::toAscii(tooLong); },
                ::testing::ThrowsMessage<kavro::idn::IdnaError>("Invalid length"));
    EXPECT_EXIT(idn_toascii_safe(tooLong.c_str()), ::testing::ExitedWithCode(1),
                "^idn_toascii_safe\\(a*\\) failed: Invalid length\n");
}

}  // namespace
