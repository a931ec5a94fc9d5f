// The password's way in from the environment, and that nothing of it stays behind.
#include "auth/env_password.h"

#include <crypt.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "auth/auth_database.h"
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

// The end of a secret, which stands in this program only disguised, or the search would find itself. The end, because
// the heap writes over the first 16 bytes of what is freed, and because a cipher may keep the last block.
constexpr char kDisguised[] = "uif.tfdsfu!";
constexpr std::size_t kLength = sizeof(kDisguised) - 1;

/// How often the undisguised text stands in the writable memory of this process, the environment's included.
int occurrences() {
    int found = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        void* from = nullptr;
        void* to = nullptr;
        if (line.find(" rw") != std::string::npos && std::sscanf(line.c_str(), "%p-%p", &from, &to) == 2) {
            for (const char* at = static_cast<char*>(from); at + kLength <= to; ++at) {
                const auto isSame = [](char here, char disguised) { return here == disguised - 1; };
                found += std::equal(at, at + kLength, kDisguised, isSame) ? 1 : 0;
            }
        }
    }
    return found;
}

class EnvPasswordTrace : public AuthDatabaseTest {};

TEST_F(EnvPasswordTrace, NothingOfItStaysInTheProcess) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own memory is too large to search";
#endif
    std::string entries[] = {"ZCP_PASSWORD=", "ZCP_CRYPTED_PASSWORD=", "ZCP_PASSWORD="};
    for (std::string& entry : entries) {
        entry.reserve(64);  // a string that grows would leave copies behind
        entry.append(16, '-');
        std::transform(kDisguised, kDisguised + kLength, std::back_inserter(entry),
                       [](char c) { return static_cast<char>(c - 1); });
    }
    char* environment[] = {entries[0].data(), entries[1].data(), entries[2].data(), nullptr};
    char** const former = std::exchange(environ, environment);
    EXPECT_EQ(occurrences(), 3);
    {
        const PasswordAccessor accessor;
        ASSERT_EQ(mailPasswdCipherInit(), 0);
        EXPECT_EQ(mailAuthSet("joe", "d.test", accessor.password(), accessor.flags()), 0);
        EXPECT_EQ(occurrences(), 1);  // the accessor's own
        EXPECT_EQ(mailAuthSet("ann", "d.test", accessor.password(), MAIL_AUTH_UNENCRYPTED), 0);
        EXPECT_EQ(mailAuthClone("ann", "d.test", "bob", "d.test"), 0);
        const auto matches = [](const char*, const char* password, unsigned char, void* expected) {
            return std::string_view(password) == static_cast<const char*>(expected) ? 1 : -1;
        };
        EXPECT_EQ(mailAuthCheck("joe@d.test", matches, const_cast<char*>(accessor.password())), 1);
        EXPECT_EQ(occurrences(), 1);
    }
    mailPasswdCipherCleanup();
    EXPECT_EQ(occurrences(), 0);
    environ = former;
}

}  // namespace
