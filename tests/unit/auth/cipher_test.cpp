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
/// The same with -nopad, of "short" and eleven zero bytes.
constexpr char kZeroPadded[] = "$AES-256-CBC:ZERO$8OHSw7Sllod4aVpLPC0eDw==$7Nrd9vBobo3jmejh9SfUgw==";

class CipherTest : public AuthTest {
protected:
    CipherTest() { writeKey(40); }
    ~CipherTest() override {
        while (cphr_cleanup_cipher_ctx_node(kScheme) == 1) {
        }
    }
    static std::string encrypt(const std::string& plain) { return textOf(CString(mail_aes_encrypt(plain.c_str()))); }
    static std::string crypt(const char* plain, const char* spec) {
        return textOf(CString(kavro_cipher_crypt(plain, spec)));
    }
    static std::string decrypt(const std::string& stored) { return textOf(CString(mail_aes_decrypt(stored.c_str()))); }
};

TEST_F(CipherTest, ReadsAndWritesWhatOpensslDoesWithTheFirst32BytesOfTheKeyFile) {
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    EXPECT_EQ(decrypt(kStored), kPassword);
    // An IV of the caller's, alone or with the rest of a stored value behind it.
    EXPECT_EQ(crypt(kPassword, "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw=="), kStored);
    EXPECT_EQ(crypt(kPassword, kStored), kStored);
    EXPECT_EQ(crypt(kPassword, "$AES-256-CBC:PKCS$8OHS"), "(null)");
    EXPECT_EQ(crypt(kPassword, kScheme), "(null)");
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

TEST_F(CipherTest, RefusesForeignAndDamagedValuesAndAnotherKey) {
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    for (const char* foreign : {"plain", "", "$AES-256-CBC:PKCS", "$1$salt$hash", "AES-256-CBC:PKCS$a$b"}) {
        errno = 0;
        EXPECT_EQ(decrypt(foreign), "(null)") << foreign;
        EXPECT_EQ(errno, EINVAL) << foreign;
    }
    for (const char* damaged :
         {"$AES-256-CBC:PKCS$", "$AES-256-CBC:PKCS$$", "$AES-256-CBC:PKCS$8OHS$CR9xmKDIczNW7W1CUq1+qg==",
          "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw==$CR9xmKDIczNW7W1CUq1+qmAf",
          "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw8OHSw7$CR9xmKDIczNW7W1CUq1+qmAfzQjYTYmIh20wLd3ubMs="}) {
        EXPECT_EQ(decrypt(damaged), "(null)") << damaged;
    }
    EXPECT_EQ(decrypt(kStored), kPassword);  // a failure leaves the context usable
    mail_aes_cleanup();
    writeKey(32, 1);
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    EXPECT_EQ(decrypt(kStored), "(null)");
}

TEST_F(CipherTest, StaysLoadedUntilTheLastReferenceGoes) {
    ASSERT_EQ(mailPasswdCipherInit(), 0);
    writeKey(32, 1);
    ASSERT_EQ(mail_aes_init("/nowhere"), 1);  // counts only
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), 1);
    EXPECT_EQ(decrypt(kStored), kPassword);
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), 0);
    EXPECT_EQ(cphr_find_cipher_ctx_node(kScheme), nullptr);
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), -1);
    EXPECT_TRUE(logged().empty());
    mailPasswdCipherCleanup();
    EXPECT_EQ(logged().back(),
              "6: Failed to correctly destroy encryption cipher '" + std::string(kScheme) + "'. A programming error?");
}

TEST_F(CipherTest, SaysWhyAContextCannotBeHad) {
    const std::string key = mailAuthKey;
    const std::string init = "3: Failed to initialize encryption cipher '";
    const std::string with = "' with key '" + key + "'";
    writeKey(31);
    EXPECT_EQ(mailPasswdCipherOp("p", MAIL_CIPHER_ENCRYPT, "joe", "d.test"), nullptr);
    EXPECT_EQ(kavro_cipher_init("AES-256-CBC:PKCS9012345678901234", mailAuthKey), 0);
    EXPECT_THAT(
        logged(),
        ElementsAre("3: Failed to read entire encryption key from '" + key + "': Success (0)", init + kScheme + with,
                    "3: Failed to initialize password cipher context (for mail address 'joe@d.test')",
                    "3: Unknown encryption cipher: 'AES-256-CBC'", init + "AES-256-CBC:PKCS9012345678901234" + with));
    writeKey(32);
    EXPECT_EQ(mailPasswdCipherOp("p", MAIL_CIPHER_DECRYPT, "joe@d.test", nullptr), nullptr);
    EXPECT_EQ(logged().back(), "3: Failed to decrypt password for mail address 'joe@d.test'");
    std::filesystem::remove(key);
    EXPECT_EQ(mailPasswdCipherInit(), -1);
    EXPECT_EQ(logged().back(), "3: Failed to initialize password cipher context");
    EXPECT_EQ(logged()[6], "3: Can't read encryption key from '" + key + "': No such file or directory (2)");
    EXPECT_TRUE(gen_ciphers_list.empty());
}

TEST_F(CipherTest, OtherSchemesPadWithZeroBytes) {
    ASSERT_EQ(kavro_cipher_init("AES-256-CBC:ZERO", mailAuthKey), 1);
    EXPECT_EQ(crypt("short", kZeroPadded), kZeroPadded);
    EXPECT_EQ(textOf(CString(kavro_cipher_decrypt(kZeroPadded))), "short");
    for (const auto& [plain, characters] :
         {std::pair{"", 24U}, {"sixteen bytes...", 24U}, {"seventeen bytes..", 44U}}) {
        const std::string stored = crypt(plain, "$AES-256-CBC:ZERO");
        EXPECT_EQ(stored.size() - stored.rfind('$') - 1, characters) << plain;
    }
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node("AES-256-CBC:ZERO"), 0);
}

TEST_F(CipherTest, ARecordTakesNoKeyIvOrTextOutsideItsLimits) {
    symmetric_cipher record;
    symmetric_cipher_init(&record);
    const std::array<unsigned char, 65> bytes{1, 2, 3};
    for (const std::size_t size : {31U, 65U}) {
        EXPECT_EQ(symmetric_cipher_set_key(&record, bytes.data(), size), 0);
        EXPECT_EQ(symmetric_cipher_set_iv(&record, bytes.data(), size / 2), 0);
    }
    EXPECT_EQ(symmetric_cipher_set_encrypted(&record, bytes.data(), 2147483647), 0);
    EXPECT_EQ(logged().size(), 1U);
    // A new key counts at once, also for a context that is already set up.
    EXPECT_EQ(symmetric_cipher_set_plain(&record, "p"), 1);
    EXPECT_EQ(encrypt_symmetric(&record), 1);
    EXPECT_EQ(decrypt_symmetric(&record), 1);
    EXPECT_EQ(symmetric_cipher_set_key(&record, bytes.data(), 32), 1);
    EXPECT_EQ(decrypt_symmetric(&record), 0);
}

TEST(Base64, RoundTripsAndDecodesLeniently) {
    const std::string source("\xFF\xFE\xFB\0mail handling panel", 24);
    for (std::size_t length = 0; length <= 20; ++length) {
        const CString encoded(b64_encode(source.data(), length));
        EXPECT_EQ(std::strlen(encoded.get()), (length + 2) / 3 * 4);
        std::size_t size = 99;
        const kavro::CPtr<unsigned char> bytes(b64_decode(encoded.get(), &size));
        EXPECT_EQ(source.substr(0, length), std::string(reinterpret_cast<char*>(bytes.get()), size));
        EXPECT_EQ(bytes.get()[length], 0);
    }
    EXPECT_EQ(textOf(CString(b64_decode_cstr("Zm9vYmE"))), "fooba");  // the padding is missing
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
