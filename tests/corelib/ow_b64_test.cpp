// Base64: the RFC 4648 vectors both ways, the decoder's stopping and refusal rules.
#include "ow_b64.h"

#include "ow_internal.hpp"
#include "scratch.hpp"

using namespace std::string_literals;

namespace {

class Base64 : public ow_test::LogCaptureTest {
   protected:
    void TearDown() override {
        std::free(out_);
        LogCaptureTest::TearDown();
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

TEST_F(Base64, VectorsBothWaysWhereTheDecoderStopsAndRefusals) {
    const std::pair<std::string, const char*> both_ways[] = {
        {"f", "Zg=="},         {"fo", "Zm8="},          {"foo", "Zm9v"}, {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},  {"Ma", "TWE="},  {"\xfb\xff", "+/8="},
        {"\0\0\0"s, "AAAA"},   {"\xff\xff\xff", "////"}};
    ASSERT_TRUE(ow_base64_encode_ex(&out_, "Man", 0));  // length 0 takes the string length
    EXPECT_STREQ(out_, "TWFu");
    for (const auto& [bytes, text] : both_ways) {
        SCOPED_TRACE(text);
        EXPECT_EQ(decode(text), bytes);
        ASSERT_TRUE(ow_base64_encode_ex(&out_, bytes.data(), bytes.size()));
        EXPECT_STREQ(out_, text);
    }
    // Groups after the stopping one are not looked at, a third "=" stops whatever the fourth
    // is, "=" in front counts as zero bits, and the whole group is read before the stop.
    const std::pair<const char*, std::string> read_only[] = {
        {"TQ==TWFu", "M"},     {"TQ==!!!!", "M"},     {"TQ=ATWFu", "M"},      {"=Q==", "\x01"},
        {"TW*u", "<refused>"}, {"TQ=@", "<refused>"}, {"TWFuT", "<refused>"}, {"TWF", "<refused>"}};
    for (const auto& [text, bytes] : read_only) EXPECT_EQ(decode(text), bytes) << text;
    EXPECT_NO_ERRORS();

    uint64_t length = 0;
    ow_test::refused("ow_base64_encode_ex", std::strerror(EINVAL),
                     {!ow_base64_encode_ex(nullptr, "x", 1), !ow_base64_encode_ex(&out_, "", 0)});
    ow_test::refused(
        "ow_base64_decode_ex", std::strerror(EINVAL),
        {!ow_base64_decode_ex(nullptr, "TWFu", &length), !ow_base64_decode_ex(&out_, "", &length)});
    char* const kept = out_;
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_base64_encode_ex(&out_, "x", 1));
    ow::testing::fail_allocation(1);
    EXPECT_FALSE(ow_base64_decode_ex(&out_, "TWFu", &length));
    EXPECT_EQ(out_, kept);
    EXPECT_ERROR_LINE("ow_base64_encode_ex", std::strerror(ENOMEM));
    EXPECT_ERROR_LINE("ow_base64_decode_ex", std::strerror(ENOMEM));
}

}  // namespace
