// The stored form of passwords, against values made by openssl enc(1), and the life of the cipher context.
#include <cerrno>
#include <cstring>
#include <memory>

#include "auth/base64.h"
#include "auth/cipher_registry.h"
#include "auth_fixture.h"

using ::testing::ElementsAre;
using ::testing::MatchesRegex;

namespace {

using kavro::CString;

constexpr char kScheme[] = "AES-256-CBC:PKCS";
constexpr char kIv[] = "8OHSw7Sllod4aVpLPC0eDw==";
constexpr char kPassword[] = "correct horse battery";
/// openssl enc -aes-256-cbc -K <bytes 0 to 31> -iv <kIv> -a
constexpr char kStored[] = "$AES-256-CBC:PKCS$8OHSw7Sllod4aVpLPC0eDw==$CR9xmKDIczNW7W1CUq1+qmAfzQjYTYmIh20wLd3ubMs=";
/// The same with -nopad, of "short" and eleven zero bytes.
constexpr char kZeroPadded[] = "$AES-256-CBC:ZERO$8OHSw7Sllod4aVpLPC0eDw==$7Nrd9vBobo3jmejh9SfUgw==";

std::string text(const CString& owned) {
    return owned == nullptr ? "(null)" : owned.get();
}

class CipherTest : public AuthTest {
protected:
    ~CipherTest() override {
        while (cphr_cleanup_cipher_ctx_node(kScheme) == 1) {
        }
    }
    static std::string encrypt(const char* plain) { return text(CString(mail_aes_encrypt(plain))); }
    static std::string decrypt(const std::string& stored) { return text(CString(mail_aes_decrypt(stored.c_str()))); }
};

TEST_F(CipherTest, ReadsAndWritesWhatOpensslDoesWithTheFirst32BytesOfTheKeyFile) {
    writeKey(40);
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    EXPECT_EQ(decrypt(kStored), kPassword);
    // An IV of the caller's, alone or with the rest of a stored value behind it; the next value has its own again.
    const std::string withIv = "$" + std::string(kScheme) + "$" + kIv;
    EXPECT_EQ(text(CString(kavro_cipher_crypt(kPassword, withIv.c_str()))), kStored);
    EXPECT_EQ(text(CString(kavro_cipher_crypt(kPassword, kStored))), kStored);
    EXPECT_NE(encrypt(kPassword), kStored);
    EXPECT_EQ(text(CString(kavro_cipher_crypt(kPassword, "$AES-256-CBC:PKCS$8OHS"))), "(null)");
}

TEST_F(CipherTest, EveryValueHasAnIvOfItsOwnAndIsReadBack) {
    writeKey(32);
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    for (const std::size_t length : {1U, 15U, 16U, 17U, 1000U}) {
        const std::string plain(length, 'p');
        const std::string first = encrypt(plain.c_str());
        const std::string second = encrypt(plain.c_str());
        const std::size_t ivEnd = std::strlen("$AES-256-CBC:PKCS$") + 24;
        EXPECT_THAT(first, MatchesRegex("\\$AES-256-CBC:PKCS\\$[A-Za-z0-9+/]{22}==\\$[A-Za-z0-9+/]+=*"));
        EXPECT_NE(first.substr(0, ivEnd), second.substr(0, ivEnd));
        EXPECT_EQ(decrypt(first), plain);
        EXPECT_EQ(decrypt(second), plain);
    }
    const std::string empty = encrypt("");
    EXPECT_EQ(empty.size(), std::strlen("$AES-256-CBC:PKCS$") + 24 + 1 + 24);
    EXPECT_EQ(decrypt(empty), "(null)");
}

TEST_F(CipherTest, RefusesForeignDamagedAndForeignKeyValues) {
    writeKey(32);
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    for (const char* foreign : {"plain", "", "$AES-256-CBC:PKCS", "$1$salt$hash", "AES-256-CBC:PKCS$a$b"}) {
        errno = 0;
        EXPECT_EQ(decrypt(foreign), "(null)") << foreign;
        EXPECT_EQ(errno, EINVAL) << foreign;
    }
    EXPECT_EQ(mail_aes_decrypt(nullptr), nullptr);
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
    writeKey(32);
    ASSERT_EQ(mailPasswdCipherInit(), 0);
    writeKey(32, 1);
    ASSERT_EQ(mail_aes_init("/nowhere"), 1);  // counts only
    mail_aes_cleanup();
    EXPECT_EQ(decrypt(kStored), kPassword);
    mailPasswdCipherCleanup();
    EXPECT_EQ(cphr_find_cipher_ctx_node(kScheme), nullptr);
    EXPECT_EQ(decrypt(kStored), "(null)");
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), -1);
    EXPECT_TRUE(logged().empty());
    mail_aes_cleanup();
    EXPECT_THAT(logged(), ElementsAre("6: Failed to correctly destroy encryption cipher 'AES-256-CBC:PKCS'. A "
                                      "programming error?"));
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    ASSERT_EQ(mail_aes_init(mailAuthKey), 1);
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), 1);
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node(kScheme), 0);
}

TEST_F(CipherTest, SaysWhyAContextCannotBeHad) {
    const std::string key = mailAuthKey;
    const std::string end = "' with key '" + key + "'";
    EXPECT_EQ(mailPasswdCipherInit(), -1);
    EXPECT_THAT(logged(), ElementsAre("3: Can't read encryption key from '" + key + "': No such file or directory (2)",
                                      "3: Failed to initialize encryption cipher 'AES-256-CBC:PKCS" + end,
                                      "3: Failed to initialize password cipher context"));
    logged().clear();
    writeKey(31);
    EXPECT_EQ(mail_aes_init(mailAuthKey), 0);
    EXPECT_EQ(kavro_cipher_init("ROT-13:PKCS", mailAuthKey), 0);
    EXPECT_EQ(kavro_cipher_init("AES-256-CBC:PKCS9012345678901234", mailAuthKey), 0);
    EXPECT_THAT(logged(),
                ElementsAre("3: Failed to read entire encryption key from '" + key + "': Success (0)",
                            "3: Failed to initialize encryption cipher 'AES-256-CBC:PKCS" + end,
                            "3: Unknown encryption cipher: 'ROT-13'",
                            "3: Failed to initialize encryption cipher 'ROT-13:PKCS" + end,
                            "3: Unknown encryption cipher: 'AES-256-CBC'",
                            "3: Failed to initialize encryption cipher 'AES-256-CBC:PKCS9012345678901234" + end));
    EXPECT_TRUE(gen_ciphers_list.empty());
    logged().clear();
    EXPECT_EQ(mailPasswdCipherOp("p", MAIL_CIPHER_ENCRYPT, "joe", "d.test"), nullptr);
    EXPECT_EQ(logged().back(), "3: Failed to initialize password cipher context (for mail address 'joe@d.test')");
    writeKey(32);
    EXPECT_EQ(mailPasswdCipherOp("p", MAIL_CIPHER_DECRYPT, "joe@d.test", nullptr), nullptr);
    EXPECT_EQ(logged().back(), "3: Failed to decrypt password for mail address 'joe@d.test'");
    EXPECT_TRUE(gen_ciphers_list.empty());
}

TEST_F(CipherTest, OtherSchemesPadWithZeroBytes) {
    writeKey(32);
    ASSERT_EQ(kavro_cipher_init("AES-256-CBC:ZERO", mailAuthKey), 1);
    EXPECT_EQ(text(CString(kavro_cipher_crypt("short", kZeroPadded))), kZeroPadded);
    EXPECT_EQ(text(CString(kavro_cipher_decrypt(kZeroPadded))), "short");
    const auto blocks = [](const char* plain) {
        const std::string stored = text(CString(kavro_cipher_encrypt("AES-256-CBC:ZERO", plain)));
        return (stored.size() - stored.rfind('$') - 1) / 4 * 3 / 16;
    };
    EXPECT_EQ(blocks(""), 1U);
    EXPECT_EQ(blocks("sixteen bytes..."), 1U);
    EXPECT_EQ(blocks("seventeen bytes.."), 2U);
    EXPECT_EQ(cphr_cleanup_cipher_ctx_node("AES-256-CBC:ZERO"), 0);
}

TEST_F(CipherTest, ARecordTakesNoKeyIvOrTextOutsideItsLimits) {
    symmetric_cipher record;
    symmetric_cipher_init(&record);
    const std::array<unsigned char, 65> bytes{1, 2, 3};
    EXPECT_EQ(symmetric_cipher_set_key(&record, bytes.data(), 31), 0);
    EXPECT_EQ(symmetric_cipher_set_key(&record, bytes.data(), 65), 0);
    EXPECT_EQ(symmetric_cipher_set_key(&record, nullptr, 32), 0);
    EXPECT_EQ(symmetric_cipher_set_iv(&record, bytes.data(), 15), 0);
    EXPECT_EQ(symmetric_cipher_set_iv(&record, bytes.data(), 17), 0);
    errno = 0;
    EXPECT_EQ(symmetric_cipher_set_encrypted(&record, bytes.data(), 2147483647), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(logged(), ElementsAre("4: Attempt to feed into symmetric cipher more encrypted data (2147483647 bytes) "
                                      "than it's designed to handle."));

    // A new key counts at once, also for a context that is already set up.
    record.flags = 0;
    std::size_t size = 0;
    EXPECT_EQ(symmetric_cipher_set_plain(&record, "p"), 1);
    EXPECT_EQ(encrypt_symmetric(&record), 1);
    EXPECT_EQ(symmetric_cipher_set_key(&record, bytes.data(), 32), 1);
    EXPECT_EQ(decrypt_symmetric(&record), 0);
    EXPECT_EQ(symmetric_cipher_get_encrypted(&record, &size)[size], 0);
    EXPECT_EQ(size, 16U);
    EXPECT_EQ(symmetric_cipher_cleanup(&record), 1);
    EXPECT_EQ(symmetric_cipher_get_plain(&record), nullptr);
    EXPECT_EQ(record.key[0], 0);
}

TEST(Base64, RoundTripsAndDecodesLeniently) {
    const std::string source("\xFF\xFE\xFB\0mail handling panel", 24);
    for (std::size_t length = 0; length <= 20; ++length) {
        const CString encoded(b64_encode(source.data(), length));
        EXPECT_EQ(std::strlen(encoded.get()), (length + 2) / 3 * 4);
        std::size_t size = 99;
        const kavro::CPtr<unsigned char> bytes(b64_decode(encoded.get(), &size));
        ASSERT_EQ(size, length);
        EXPECT_EQ(std::memcmp(bytes.get(), source.data(), length), 0);
        EXPECT_EQ(bytes.get()[size], 0);
    }
    EXPECT_EQ(text(CString(b64_encode_cstr("fooba"))), "Zm9vYmE=");
    EXPECT_EQ(text(CString(b64_encode("\xFB\xFF", 2))), "+/8=");
    EXPECT_EQ(text(CString(b64_decode_cstr("Zm9vYg=="))), "foob");
    EXPECT_EQ(text(CString(b64_decode_cstr("Zm9vYmE"))), "fooba");  // the padding is missing
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
