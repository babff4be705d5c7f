// The base64 form of an MD5.
#include <cstring>

#include "module_fixture.h"

using namespace module_test;

namespace {

class Md5Encode : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        activate();
        std::memset(encoded, '~', sizeof encoded);
    }
    void expect_encoded(const char* digits, const char* base64) {
        ASSERT_EQ(zorvan_i_s3_md5sum_encode(digits, encoded), ZORVAN_SUCCESS);
        EXPECT_STREQ(encoded, base64);
        EXPECT_EQ(std::strlen(encoded), 24u);
        EXPECT_EQ(encoded[25], '~') << "written beyond 25 characters";
    }
    void expect_refused(const std::string& digits) {
        const auto result = zorvan_i_s3_md5sum_encode(digits.c_str(), encoded);
        expect_generic(view_result(result), "md5sum_encode", "Invalid character in md5sum " + digits);
        release_result(result);
    }
    char encoded[40];
};

TEST_F(Md5Encode, EmptyInputsMd5) {
    expect_encoded("d41d8cd98f00b204e9800998ecf8427e", "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_TRUE(logged("TRACE", "zorvan_i_s3_md5sum_encode",
                       "Encoded md5sum=d41d8cd98f00b204e9800998ecf8427e to 1B2M2Y8AsgTpgAmY7PhCfg=="));
}

TEST_F(Md5Encode, UpperCaseIsTheSame) {
    expect_encoded("D41D8CD98F00B204E9800998ECF8427E", "1B2M2Y8AsgTpgAmY7PhCfg==");
}

TEST_F(Md5Encode, AllZerosAndAllOnes) {
    expect_encoded("00000000000000000000000000000000", "AAAAAAAAAAAAAAAAAAAAAA==");
    expect_encoded("ffffffffffffffffffffffffffffffff", "/////////////////////w==");
}

TEST_F(Md5Encode, PlusSignsAreStandardAlphabet) {
    expect_encoded("fbefbefbefbefbefbefbefbefbefbefb",
                   "++++++++++++++++++++"
                   "+w==");
}

TEST_F(Md5Encode, EveryByteIsADigitOrRefused) {
    const std::string digits = "0123456789abcdefABCDEF";
    for (int byte = 1; byte < 256; ++byte) {
        const char each = static_cast<char>(byte);
        const std::string text = std::string(31, '0') + each;
        if (digits.find(each) == std::string::npos) {
            expect_refused(text);
            continue;
        }
        // The last digit is the low half of the last byte: four bits, followed by four of padding.
        const auto value = std::stoul(std::string(1, each), nullptr, 16);
        const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        const std::string last{alphabet[value >> 2], alphabet[(value & 3) << 4]};
        expect_encoded(text.c_str(), ("AAAAAAAAAAAAAAAAAAAA" + last + "==").c_str());
    }
}

TEST_F(Md5Encode, LetterGAnywhereIsRefused) {
    const std::string good = "d41d8cd98f00b204e9800998ecf8427e";
    for (size_t at = 0; at < 32; ++at) {
        auto bad = good;
        bad[at] = 'g';
        expect_refused(bad);
    }
}

TEST_F(Md5Encode, ShortTextIsSetToTheRightOf32Columns) {
    const auto result = zorvan_i_s3_md5sum_encode("abc", encoded);
    expect_generic(view_result(result), "md5sum_encode",
                   "Invalid character in md5sum " + std::string(29, ' ') + "abc");
    release_result(result);
}

TEST_F(Md5Encode, MessageIsCutTo65Characters) {
    const auto result = zorvan_i_s3_md5sum_encode(std::string(100, 'z').c_str(), encoded);
    const std::string head = "Invalid character in md5sum ";
    expect_generic(view_result(result), "md5sum_encode", head + std::string(65 - head.size(), 'z'));
    release_result(result);
}

TEST_F(Md5Encode, SignsAndBlanksAreRefused) {
    expect_refused("+41d8cd98f00b204e9800998ecf8427e");
    expect_refused("d41d8cd98f00b204e9800998ecf8427 ");
    expect_refused("0xd8cd98f00b204e9800998ecf842700");
    expect_refused(
        "\xc3\xa9"
        "1d8cd98f00b204e9800998ecf8427e");
}

}  // namespace
