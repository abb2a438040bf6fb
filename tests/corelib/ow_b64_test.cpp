// Tests of base64: the RFC 4648 vectors both ways (every padding case), the
// decoder's stopping and refusal rules, and the failure lines.
#include "ow_b64.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "log_capture.hpp"
#include "ow_internal.hpp"

using namespace std::string_literals;

namespace {

class Base64 : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        std::free(out_);
        LogCaptureTest::TearDown();
    }
    std::string encode(const std::string& in) {
        EXPECT_TRUE(ow_base64_encode_ex(&out_, in.data(), in.size())) << in;
        return out_;
    }
    // The decoded bytes, or "<refused>"; the output pointer must be untouched on refusal.
    std::string decode(const char* text) {
        char* before = out_;
        uint64_t length = 99;
        if (!ow_base64_decode_ex(&out_, text, &length)) {
            EXPECT_EQ(out_, before);
            EXPECT_EQ(length, 99u);
            return "<refused>";
        }
        return std::string(out_, length);
    }
    char* out_ = nullptr;
};

TEST_F(Base64, Rfc4648VectorsAndUnsignedBytes) {
    const std::pair<std::string, const char*> cases[] = {
        {"f", "Zg=="},        {"fo", "Zm8="},          {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},   {"foobar", "Zm9vYmFy"},
        {"Ma", "TWE="},       {"M", "TQ=="},           {"\xfb\xff", "+/8="},
        {"\0\0\0"s, "AAAA"},  {"\xff\xff\xff", "////"}};
    for (const auto& [bytes, text] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(encode(bytes), text);
        EXPECT_EQ(decode(text), bytes);
    }
    // Length 0 takes the string length.
    ASSERT_TRUE(ow_base64_encode_ex(&out_, "Man", 0));
    EXPECT_STREQ(out_, "TWFu");
}

TEST_F(Base64, DecoderStopsAtPaddingAndRefusesStrangers) {
    const std::pair<const char*, std::string> cases[] = {
        {"TQ==TWFu", "M"},       // groups after the stopping one are not looked at
        {"TQ==!!!!", "M"},       //
        {"TQ=ATWFu", "M"},       // a third "=" stops, whatever the fourth is
        {"=Q==", "\x01"},        // "=" in front counts as zero bits
        {"TW*u", "<refused>"},   //
        {"TQ=@", "<refused>"},   // the whole group is read before the stop
        {"TWFuT", "<refused>"},  // not a multiple of 4
        {"TWF", "<refused>"},
    };
    ASSERT_TRUE(ow_base64_encode_ex(&out_, "previous", 0));
    for (const auto& [text, bytes] : cases) {
        SCOPED_TRACE(text);
        EXPECT_EQ(decode(text), bytes);
    }
    EXPECT_NO_ERRORS();
}

TEST_F(Base64, RefusalsAndOutOfMemory) {
    uint64_t length = 0;
    ow_test::refused("ow_base64_encode_ex", std::strerror(EINVAL),
                     {!ow_base64_encode_ex(nullptr, "x", 1), !ow_base64_encode_ex(&out_, "", 0)});
    ow_test::refused(
        "ow_base64_decode_ex", std::strerror(EINVAL),
        {!ow_base64_decode_ex(nullptr, "TWFu", &length), !ow_base64_decode_ex(&out_, "", &length)});
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_base64_encode_ex(&out_, "x", 1));
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_base64_decode_ex(&out_, "TWFu", &length));
    EXPECT_EQ(out_, nullptr);
    EXPECT_ERROR_LINE("ow_base64_encode_ex", std::strerror(ENOMEM));
    EXPECT_ERROR_LINE("ow_base64_decode_ex", std::strerror(ENOMEM));
}

}  // namespace
