// The stored form of passwords, against values made by openssl enc(1), and the life of the cipher context.
#include <cerrno>
#include <cstring>
#include <memory>

#include "auth/base64.h"
#include "auth/cipher_registry.h"
#include "auth_fixture.h"

using kavro::CString;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

namespace {

constexpr char kScheme[] = "AES-256-CBC:PKCS";
constexpr char kPassword[] = "correct horse battery";
/// openssl enc -aes-256-cbc -K <bytes 0 to 31> -iv f0e1d2c3b4a5968778695a4b3c2d1e0f -a
constexpr char kStored[] = "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw==$CR9xmKDIczNW7W1CUq1+qmAfzQjYTYmIh20wLd3ubMs=";

class CipherTest : public AuthTest {
protected:
    CipherTest() { writeKey(40); }
    ~CipherTest() override { gen_ciphers_list.clear(); }
    static std::string encrypt(const std::string& plain) { return textOf(CString(mail_aes_encrypt(plain.c_str()))); }
    static std::string crypt(const char* plain, const char* spec) {
        return textOf(CString(kavro_cipher_crypt(plain, spec)));
    }
    static std::string decrypt(const std::string& stored) { return textOf(CString(mail_aes_decrypt(stored.c_str()))); }
};

TEST_F(CipherTest, ReadsAndWritesWhatOpensslDoesWithTheFirst32BytesOfTheKeyFile) {
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    EXPECT_EQ(decrypt(kStored), kPassword);
    EXPECT_EQ(crypt(kPassword, kStored), kStored);  // with its IV
    EXPECT_EQ(crypt(kPassword, "$AES-256-CBC:PKCS$8OHS"), "(null)");
    for (const std::size_t length : {1U, 15U, 16U, 17U, 1000U}) {
        const std::string plain(length, 'p');
        const std::string first = encrypt(plain);
        EXPECT_THAT(first, MatchesRegex("\\$AES-256-CBC:PKCS\\$[A-Za-z0-9+/]{22}==\\$[A-Za-z0-9+/]+=*"));
        EXPECT_NE(first.substr(0, 40), encrypt(plain).substr(0, 40));
        EXPECT_EQ(decrypt(first), plain);
    }
    const std::string empty = encrypt("");
    EXPECT_EQ(empty.size() - empty.rfind('$'), 25U);
    EXPECT_EQ(decrypt(empty), "(null)");
}

TEST_F(CipherTest, WithoutPaddingBlocksAreFilledWithZeros) {
    EXPECT_EQ(mail_aes_gen_key(std::vector<unsigned char>(32).data(), kMailAesKeySize - 1), 0);
    ASSERT_EQ(kavro_cipher_init("AES-256-CBC", mailAuthKey), 1);
    for (const auto& [length, written] : {std::pair{0U, 24U}, {16U, 24U}, {17U, 44U}}) {
        const std::string stored = crypt(std::string(length, 'p').c_str(), "$AES-256-CBC");
        EXPECT_EQ(stored.size() - stored.rfind('$') - 1, written) << stored;
    }
}

TEST_F(CipherTest, RefusesForeignAndDamagedValues) {
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    for (const char* refused :
         {"$AES-256-CBC:PKCS", "$AES-256-CBC:PKCS$",
          "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw==$CR9xmKDIczNW7W1CUq1+qmAf",
          "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw8OHSw7$CR9xmKDIczNW7W1CUq1+qmAfzQjYTYmIh20wLd3ubMs="}) {
        EXPECT_EQ(decrypt(refused), "(null)") << refused;
    }
    EXPECT_EQ(decrypt(kStored), kPassword);  // a failure leaves the context usable
    errno = 0;
    EXPECT_EQ(decrypt("$1$salt$hash"), "(null)");
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(CipherTest, StaysLoadedUntilTheLastReferenceGoes) {
    ASSERT_EQ(mailPasswdCipherInit(), 0);
    writeKey(32, 1);
    ASSERT_EQ(mail_aes_init("/nowhere"), 1);  // counts only
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), 1);
    EXPECT_EQ(decrypt(kStored), kPassword);
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), 0);
    EXPECT_TRUE(logged.empty());
    mailPasswdCipherCleanup();
    EXPECT_EQ(logged.back(),
              "6 Failed to correctly destroy encryption cipher '" + std::string(kScheme) + "'. A programming error?");
    ASSERT_EQ(mailPasswdCipherInit(), 0);
    EXPECT_EQ(decrypt(kStored), "(null)");  // with the other key
}

TEST_F(CipherTest, SaysWhyAContextCannotBeHad) {
    const std::string key = mailAuthKey;
    const std::string init = "3 Failed to initialize encryption cipher 'AES-256-CBC:PKCS";
    writeKey(31);
    EXPECT_EQ(mailPasswdCipherOp("p", MAIL_CIPHER_ENCRYPT, "joe", "d.test"), nullptr);
    EXPECT_EQ(kavro_cipher_init("AES-256-CBC:PKCS9012345678901234", mailAuthKey), 0);
    std::filesystem::remove(key);
    EXPECT_EQ(mailPasswdCipherInit(), -1);
    EXPECT_THAT(
        logged,
        ElementsAre("3 Failed to read entire encryption key from '" + key + "': Success (0)",
                    init + "' with key '" + key + "'",
                    "3 Failed to initialize password cipher context (for mail address 'joe@d.test')",
                    "3 Unknown encryption cipher: 'AES-256-CBC'", init + "9012345678901234' with key '" + key + "'",
                    "3 Can't read encryption key from '" + key + "': No such file or directory (2)",
                    init + "' with key '" + key + "'", "3 Failed to initialize password cipher context"));
    EXPECT_TRUE(gen_ciphers_list.empty());
}

TEST(Base64, DecodesLeniently) {
    EXPECT_EQ(textOf(CString(b64_encode_cstr("fooba"))), "Zm9vYmE=");
    EXPECT_EQ(textOf(CString(b64_decode_cstr("Zm9vYmE"))), "fooba");  // the padding is missing
    unsigned char whole[5];
    EXPECT_EQ(base64Decode(whole, "Zm9vYmE="), sizeof whole);
    // Exact blocks, so that a read or write beyond them shows under the sanitizer.
    for (const auto& [characters, expected] :
         {std::pair{"", 0U}, {"Z", 0U}, {"Zg", 1U}, {"Zm9", 2U}, {"====", 1U}, {"Zm9v Zg=", 5U}, {"\xFF\x01 \n", 3U}}) {
        const std::size_t length = std::strlen(characters);
        const auto in = std::make_unique<char[]>(length);
        const auto out = std::make_unique<unsigned char[]>(expected);
        std::memcpy(in.get(), characters, length);
        EXPECT_EQ(base64ArrayDecode(out.get(), in.get(), length), expected) << characters;
    }
}

}  // namespace
