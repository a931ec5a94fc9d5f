// What the tests of this floor share: session data loaded from a text, beside an authentication database.
#pragma once

#include <string>

#include "auth/auth_fixture.h"
#include "session/session_mail_data.h"

class SessionTest : public AuthDatabaseTest {
protected:
    SessionTest() { load(); }
    ~SessionTest() override { free_session_mail_db_info(); }

    static int read(std::string text) {
        free_session_mail_db_info();
        std::FILE* stream = ::fmemopen(text.data(), text.size(), "r");
        const int result = read_session_mail_db_info(stream, 0);
        std::fclose(stream);
        return result;
    }

    /// A domain with two aliases and a mail list; info has two aliases, sales has none.
    static void load() {
        ASSERT_EQ(read(R"({"domain":{"name":"example.com","dom_aliases":["one.net","two.net"],"maillists":["news"],)"
                       R"("mails":[{"name":"info","aliases":["help","ask"]},{"name":"sales","aliases":[]}]}})"),
                  0);
    }
};
