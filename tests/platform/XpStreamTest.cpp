#include "xpstream.h"
#include <gtest/gtest.h>

TEST(ByteReader, ReadsNetworkOrder)
{
    const uint8 arrData[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8};
    CXPReader reader(arrData, sizeof(arrData));
    EXPECT_EQ(reader.U8(), 1u);
    EXPECT_EQ(reader.U16(), 0x0203u);
    EXPECT_EQ(reader.U24(), 0x040506u);
    EXPECT_EQ(reader.U32(), 0x0708090Au);
    EXPECT_EQ(reader.U64(), 0xFFFEFDFCFBFAF9F8ull);
    EXPECT_TRUE(reader.Ok());
    EXPECT_EQ(reader.Left(), 0u);
    EXPECT_EQ(reader.Pos(), 18u);
}

TEST(ByteReader, AReadPastTheEndFailsAndSoDoesEveryReadAfterIt)
{
    const uint8 arrData[] = {1, 2, 3};
    CXPReader reader(arrData, sizeof(arrData));
    EXPECT_EQ(reader.U16(), 0x0102u);
    EXPECT_EQ(reader.U16(), 0u);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.U8(), 0u); // there is a byte, but the parse is off already
    EXPECT_EQ(reader.Bytes(0), nullptr);
    EXPECT_EQ(reader.Pos(), 2u);
}

TEST(ByteReader, GivesBytesInPlaceAndSkips)
{
    const uint8 arrData[] = {1, 2, 3, 4};
    CXPReader reader(arrData, sizeof(arrData));
    EXPECT_TRUE(reader.Skip(1));
    EXPECT_EQ(reader.Bytes(2), arrData + 1);
    EXPECT_FALSE(reader.Skip((size_t)-1)); // no sum of sizes that could wrap
    EXPECT_FALSE(reader.Ok());
}

TEST(ByteReader, ANullSpanIsEmpty)
{
    CXPReader reader(nullptr, 100);
    EXPECT_EQ(reader.Left(), 0u);
    EXPECT_EQ(reader.U8(), 0u);
    EXPECT_FALSE(reader.Ok());
}

TEST(ByteWriter, WritesWhatTheReaderReads)
{
    uint8 arrData[21] = {};
    CXPWriter writer(arrData, sizeof(arrData));
    writer.U8(0xAB).U16(0xCDEF).U24(0xFF123456).U32(0x789ABCDE).U64(0x0123456789ABCDEFull).Bytes("xyz", 3);
    EXPECT_TRUE(writer.Ok());
    EXPECT_EQ(writer.Pos(), 21u);
    EXPECT_EQ(arrData[1], 0xCD);

    CXPReader reader(arrData, sizeof(arrData));
    EXPECT_EQ(reader.U8(), 0xABu);
    EXPECT_EQ(reader.U16(), 0xCDEFu);
    EXPECT_EQ(reader.U24(), 0x123456u);
    EXPECT_EQ(reader.U32(), 0x789ABCDEu);
    EXPECT_EQ(reader.U64(), 0x0123456789ABCDEFull);
    EXPECT_EQ(memcmp(reader.Bytes(3), "xyz", 3), 0);
}

TEST(ByteWriter, AWriteThatDoesNotFitWritesNothingAndEndsTheWriting)
{
    uint8 arrData[4] = {9, 9, 9, 9};
    CXPWriter writer(arrData, 3);
    writer.U16(1).U16(2).U8(3);
    EXPECT_FALSE(writer.Ok());
    EXPECT_EQ(writer.Pos(), 2u);
    EXPECT_EQ(writer.Left(), 1u);
    EXPECT_EQ(arrData[2], 9);
    EXPECT_EQ(arrData[3], 9);
}
