// Big-endian bytes in a bounded span.

#include "support.h"

#include "tarn_wire.h"

#include <array>

namespace
{

TEST(Wire, NumbersAndBytesAreBigEndianAndComeBack)
{
    std::array<uint8_t, 18> bytes{};
    tarn::wire_writer out(bytes);
    out.u8(0x01);
    out.u16(0x0203);
    out.u32(0x04050607);
    out.u64(0x08090A0B0C0D0E0F);
    out.bytes("STX", 3);
    EXPECT_TRUE(out.ok());
    EXPECT_EQ(out.position(), bytes.size());
    EXPECT_EQ(out.remaining(), 0u);
    for (uint8_t i = 0; i < 15; ++i)
    {
        EXPECT_EQ(bytes[i], i + 1);
    }

    tarn::wire_reader in(bytes);
    EXPECT_EQ(in.u8(), 0x01);
    EXPECT_EQ(in.u16(), 0x0203);
    EXPECT_EQ(in.u32(), 0x04050607u);
    EXPECT_EQ(in.u64(), 0x08090A0B0C0D0E0Fu);
    EXPECT_EQ(std::string_view(reinterpret_cast<const char *>(in.bytes(3).data()), 3), "STX");
    EXPECT_TRUE(in.bytes(0).empty());
    EXPECT_TRUE(in.ok());
}

TEST(Wire, ReaderFailsForGoodAtTheFirstAccessBeyondTheEnd)
{
    const std::array<uint8_t, 5> bytes = {1, 2, 3, 4, 5};
    tarn::wire_reader in(bytes);
    EXPECT_EQ(in.u16(), 0x0102);
    EXPECT_TRUE(in.bytes(UINT32_MAX).empty());
    EXPECT_FALSE(in.ok());
    EXPECT_EQ(in.needed(), 2 + uint64_t{UINT32_MAX});
    EXPECT_EQ(in.u8(), 0); // would fit
    EXPECT_EQ(in.u64(), 0u);
    EXPECT_EQ(in.position(), 2u);
    EXPECT_EQ(in.needed(), 2 + uint64_t{UINT32_MAX}); // of the first failure
    EXPECT_FALSE(in.ok());

    tarn::wire_reader none{std::span<const uint8_t>()};
    EXPECT_EQ(none.u8(), 0);
    EXPECT_EQ(none.needed(), 1u);
}

TEST(Wire, WriterTouchesNothingBeyondTheEndOrAfterAFailure)
{
    std::array<uint8_t, 8> bytes;
    bytes.fill(0xEE);
    tarn::wire_writer out({bytes.data(), 5});
    out.u8(1);
    out.u64(2);
    out.u8(3);
    out.bytes(nullptr, 0);
    EXPECT_FALSE(out.ok());
    EXPECT_EQ(out.needed(), 9u);
    EXPECT_EQ(out.position(), 1u);
    EXPECT_EQ(bytes, (std::array<uint8_t, 8>{1, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
}

} // namespace
