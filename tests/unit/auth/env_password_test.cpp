// The password's way in from the environment.
#include "auth/env_password.h"

#include <crypt.h>
#include <stdlib.h>

#include <tuple>

#include "auth_fixture.h"

namespace {

void setBoth(const char* plain, const char* crypted) {
    ::setenv("ZCP_PASSWORD", plain, 1);
    ::setenv("ZCP_CRYPTED_PASSWORD", crypted, 1);
}

TEST(EnvPassword, ThePlainOneWinsAndOnlyTheOneTakenGoesUnlessTheAccessorTakesIt) {
    const char* password = "untouched";
    int crypted = 9;
    setBoth("", "");
    EXPECT_EQ(get_env_password(&password, &crypted), -1);
    EXPECT_EQ(password + std::to_string(crypted), "untouched9");
    for (const auto& [plain, hash, isCrypted] : {std::tuple{"p", "h", 0}, {"", "h", 1}}) {
        setBoth(plain, hash);
        ASSERT_EQ(get_env_password(&password, &crypted), 0);
        const kavro::CString owned(const_cast<char*>(password));
        EXPECT_STREQ(password, isCrypted == 1 ? hash : plain);
        EXPECT_EQ(crypted, isCrypted);
        EXPECT_EQ(::getenv("ZCP_PASSWORD") != nullptr, isCrypted == 1);
        EXPECT_EQ(::getenv("ZCP_CRYPTED_PASSWORD") != nullptr, isCrypted == 0);
        setBoth(plain, hash);
        const PasswordAccessor accessor;
        EXPECT_STREQ(accessor.password(), password);
        EXPECT_EQ(accessor.flags(), isCrypted);
        EXPECT_TRUE(::getenv("ZCP_PASSWORD") == nullptr && ::getenv("ZCP_CRYPTED_PASSWORD") == nullptr);
    }
    EXPECT_EQ(PasswordAccessor().password(), nullptr);
}

// Both buffers live as long as the process: what fills one a second way needs a process of its own.
TEST(EnvPassword, BuffersAreFilledOnceAndHoldAHashOfThePlainOne) {
    setBoth("", "hash");
    EXPECT_EXIT(std::exit(get_env_crypted_password() == std::string("hash") ? 0 : 1), ::testing::ExitedWithCode(0), "");
    setBoth("plain", "hash");
    const std::string made = get_env_crypted_password();
    EXPECT_TRUE(made.size() == 34 && made.starts_with("$1$"));
    static struct crypt_data work;
    EXPECT_EQ(made, ::crypt_rn("plain", made.c_str(), &work, sizeof(work)));
    EXPECT_TRUE(::getenv("ZCP_PASSWORD") == nullptr && ::getenv("ZCP_CRYPTED_PASSWORD") == nullptr);
    setBoth(std::string(5000, 'p').c_str(), "hash");
    EXPECT_EQ(get_env_crypted_password(), made);
    EXPECT_EQ(get_env_noncrypted_password(), std::string(4096, 'p'));
    EXPECT_TRUE(::getenv("ZCP_PASSWORD") == nullptr && ::getenv("ZCP_CRYPTED_PASSWORD") != nullptr);
}

}  // namespace
