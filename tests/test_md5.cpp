// MD5 of buffers, streams and files.

#include "support.h"

#include "tarn_md5.h"

#include <array>

using support::expect_check;

namespace
{

using text_buffer = std::array<char, 2 * TARN_MD5_DIGEST_LENGTH + 1>;

constexpr const char *md5_of_nothing = "d41d8cd98f00b204e9800998ecf8427e";

std::string md5(std::string_view data)
{
    text_buffer text{};
    EXPECT_EQ(tarn_md5_str(data.data(), data.size(), text.data(), text.size()), 0);
    return text.data();
}

std::string pattern(size_t size)
{
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i)
    {
        data[i] = static_cast<char>(i * 7 + i / 256);
    }
    return data;
}

TEST(Md5, GivesTheValuesOfTheRfc)
{
    EXPECT_EQ(md5(""), md5_of_nothing);
    EXPECT_EQ(md5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(md5("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
              "d174ab98d277d9f5a5611c2c9f419d9f");
    EXPECT_EQ(md5("1234567890123456789012345678901234567890"
                  "1234567890123456789012345678901234567890"),
              "57edf4a22be3c955ac49da2e2107b67a");
}

TEST(Md5, DoesNotDependOnThePieces)
{
    const TARN_MD5 ctx = tarn_md5_create();
    const std::string data = pattern(200);
    for (size_t length = 0; length <= data.size(); ++length)
    {
        for (size_t first = 0; first <= length; first += 13)
        {
            EXPECT_TRUE(tarn_md5_update(ctx, data.data(), first));
            EXPECT_TRUE(tarn_md5_update(ctx, data.data() + first, length - first));
            text_buffer text{};
            ASSERT_EQ(tarn_md5_final_str(ctx, text.data(), text.size()), 0);
            ASSERT_EQ(text.data(), md5(data.substr(0, length))) << length << " " << first;
        }
    }
    uint8_t digest[TARN_MD5_DIGEST_LENGTH];
    EXPECT_TRUE(tarn_md5_final(ctx, digest)); // the context has started anew
    EXPECT_EQ(digest[0], 0xd4);
    EXPECT_EQ(digest[15], 0x7e);
    tarn_close_handle(ctx);
    tarn_md5_destroy(nullptr);
}

TEST(Md5, ReadsFilesOfAnySize)
{
    const support::leak_check no_leak;
    const support::temp_dir dir;
    const support::log_capture log;
    const std::string name = dir.file("data");
    for (const size_t size : {0, 1024, 65536, 200001})
    {
        const std::string data = pattern(size);
        support::write_file(name, data);
        text_buffer text{};
        EXPECT_EQ(tarn_md5_file(name.c_str(), text.data(), text.size()), 0);
        EXPECT_EQ(text.data(), md5(data));
        EXPECT_TRUE(
            log.contains("trace", name + " len " + std::to_string(size) + " md5 " + text.data()));
    }
}

TEST(Md5, RefusesBadArgumentsAndLeavesTheText)
{
    for (const char *check :
         {"RVOF(md5_str_size > TARN_MD5_DIGEST_LENGTH * 2,-2)", "RVON(md5_str,-2)", "RVON(path,-1)",
          "RVOF(size > TARN_MD5_DIGEST_LENGTH * 2,-2)", "RVOF(data != NULL || len == 0,-1)",
          "RVON(ctx,-1)", "RVON(ctx,false)", "RVON(fp,TARN_ERRLN)",
          "RVOF(add_file(state, fp.get(), buffer.get(), file_buffer_size),TARN_ERRLN)"})
    {
        expect_check(check);
    }
    const support::leak_check no_leak;
    const support::temp_dir dir;
    text_buffer text{};
    EXPECT_EQ(tarn_md5_file("/dev/null", text.data(), 32), -2);
    EXPECT_EQ(tarn_md5_file("/dev/null", nullptr, 33), -2);
    EXPECT_EQ(tarn_md5_file(nullptr, text.data(), 33), -1);
    EXPECT_LT(tarn_md5_file(dir.file("absent").c_str(), text.data(), 33), -2);
    EXPECT_LT(tarn_md5_file(dir.path().c_str(), text.data(), 33), -2); // a directory
    EXPECT_EQ(tarn_md5_str("a", 1, text.data(), 32), -2);
    EXPECT_EQ(tarn_md5_str(nullptr, 1, text.data(), 33), -1);
    EXPECT_EQ(tarn_md5_final_str(nullptr, text.data(), 33), -1);
    EXPECT_FALSE(tarn_md5_update(nullptr, "a", 1));
    EXPECT_EQ(text, text_buffer{});
}

TEST(Md5, ReportsMemoryThatRanOut)
{
    expect_check("RVON(ctx,TARN_INVALID_HANDLE)");
    expect_check("RVON(buffer,TARN_ERRLN)");
    const support::leak_check no_leak;
    const auto failures = support::fail_each_allocation([](size_t nth) {
        const TARN_MD5 ctx = tarn_md5_create();
        EXPECT_EQ(ctx == TARN_INVALID_HANDLE, nth == 1);
        tarn_md5_destroy(ctx);
        text_buffer text{};
        EXPECT_EQ(tarn_md5_file("/dev/null", text.data(), text.size()) < 0, nth == 2);
        EXPECT_STREQ(text.data(), nth == 2 ? "" : md5_of_nothing);
    });
    EXPECT_EQ(failures, 2u);
}

} // namespace
