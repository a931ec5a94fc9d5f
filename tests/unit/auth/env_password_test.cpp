// The password's way in from the environment, and that nothing of it stays behind.
#include "auth/env_password.h"

#include <crypt.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

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
    for (const auto& [plain, hash, expected, isCrypted, left] :
         {std::tuple{"p", "h", "p", 0, "ZCP_CRYPTED_PASSWORD"}, {"", "h", "h", 1, "ZCP_PASSWORD"}}) {
        setBoth(plain, hash);
        ASSERT_EQ(get_env_password(&password, &crypted), 0);
        const kavro::CString owned(const_cast<char*>(password));
        EXPECT_STREQ(password, expected);
        EXPECT_EQ(crypted, isCrypted);
        EXPECT_NE(::getenv(left), nullptr);
        EXPECT_EQ((::getenv("ZCP_PASSWORD") != nullptr) + (::getenv("ZCP_CRYPTED_PASSWORD") != nullptr), 1);
        setBoth(plain, hash);
        const PasswordAccessor accessor;
        EXPECT_STREQ(accessor.password(), expected);
        EXPECT_EQ(accessor.flags(), isCrypted);
        EXPECT_EQ(::getenv("ZCP_PASSWORD"), nullptr);
        EXPECT_EQ(::getenv("ZCP_CRYPTED_PASSWORD"), nullptr);
    }
    EXPECT_EQ(PasswordAccessor().password(), nullptr);
}

/// Both buffers live as long as the process, so each case has a process of its own.
template <typename Check>
void inOwnProcess(Check check) {
    EXPECT_EXIT(std::exit(check() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

TEST(EnvPassword, BuffersAreFilledOnceAndHoldAHashOfThePlainOne) {
    static struct crypt_data work;
    inOwnProcess([] {
        setBoth("plain", "hash");
        const std::string made = get_env_crypted_password();
        const bool removed = ::getenv("ZCP_PASSWORD") == nullptr && ::getenv("ZCP_CRYPTED_PASSWORD") == nullptr;
        setBoth("other", "hash");
        return removed && made.size() == 34 && made.starts_with("$1$") &&
               made == ::crypt_rn("plain", made.c_str(), &work, sizeof(work)) && made == get_env_crypted_password();
    });
    inOwnProcess([] {
        setBoth("", std::string(5000, 'h').c_str());
        return get_env_crypted_password() == std::string(4096, 'h') && ::getenv("ZCP_CRYPTED_PASSWORD") == nullptr;
    });
    inOwnProcess([] {
        setBoth("plain", "hash");
        return get_env_noncrypted_password() == std::string("plain") && ::getenv("ZCP_PASSWORD") == nullptr &&
               ::getenv("ZCP_CRYPTED_PASSWORD") != nullptr;
    });
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
        std::uintptr_t at = 0;
        std::uintptr_t end = 0;
        char writable = '-';
        if (std::sscanf(line.c_str(), "%lx-%lx r%c", &at, &end, &writable) == 3 && writable == 'w') {
            for (; at + kLength <= end; ++at) {
                std::size_t same = 0;
                while (same < kLength && reinterpret_cast<const char*>(at)[same] == kDisguised[same] - 1) {
                    ++same;
                }
                found += same == kLength ? 1 : 0;
            }
        }
    }
    return found;
}

class EnvPasswordTrace : public AuthDatabaseTest {};

// Runs in the process that the next test starts, with the secret in its environment from the start.
TEST_F(EnvPasswordTrace, DISABLED_Inside) {
    ASSERT_GT(occurrences(), 0);
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
}

TEST_F(EnvPasswordTrace, NothingOfItStaysInTheProcess) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer keeps a copy of the environment for itself";
#endif
    std::string secret(16, '-');
    for (std::size_t i = 0; i < kLength; ++i) {
        secret += static_cast<char>(kDisguised[i] - 1);
    }
    const std::string plain = "ZCP_PASSWORD=" + secret;
    const std::string crypted = "ZCP_CRYPTED_PASSWORD=" + secret;
    const char* environment[] = {plain.c_str(), crypted.c_str(), plain.c_str(), nullptr};
    const char* arguments[] = {"auth_test", "--gtest_also_run_disabled_tests",
                               "--gtest_filter=EnvPasswordTrace.DISABLED_Inside", "--gtest_brief=1", nullptr};
    const pid_t child = ::fork();
    if (child == 0) {
        ::execve("/proc/self/exe", const_cast<char**>(arguments), const_cast<char**>(environment));
        ::_exit(127);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
