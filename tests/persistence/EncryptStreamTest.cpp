#include "persistence/EncryptStream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "common/srclib/KxComn_Names.h"
#include "tests/support/Hex.h"
#include "tests/support/MemoryStream.h"

namespace
{

using KxCommon::WideString;

constexpr uint32_t kRecord = 2845;
constexpr size_t kRecordOnDisk = 4 + 2848;

// Ciphertexts of `openssl enc -aes-128-cbc` with the library's key, after their length.
const std::string kEmpty = "00000000";
const std::string kU16Is1234 = "10000000 049bfe3706ded607432b0037ff09f2a8";
const std::string kU32Is0 = "10000000 834e07d1d78dcca794a2b51985afa1cc";
const std::string kU32Is2 = "10000000 43417d2a0429bb0c0b599c69945c2cc3";
const std::string kU32Is4 = "10000000 4d04b588dcc5cd37c72852d48d04dda5";
const std::string kU32Is5 = "10000000 4d72a4be016726c680ab9209109321ef";
const std::string kU32Is17 = "10000000 477003bee4ea8e6a20cc9a89752c21d9";
const std::string kU32Is7FFFFFFF = "10000000 847ca88901bdf16e9160551035c0b084";
const std::string kU32Is80000000 = "10000000 5a907eaa015fa4ac3772888d007dd3c4";
const std::string kU32IsFFFFFFFF = "10000000 979c3e529655257198898029d4731bff";
const std::string kAbc = "10000000 9e2e902ddfd264e59397700e9316d13c";
const std::string kWideAJupiterOdd = "10000000 6c0e5dba473f363749f79a05a6ecafef"; // and one byte
const std::string kUnits1AndFF00 = "10000000 4c5fbd7aa4f5f4efe0eefe667e04f92d";
const std::string kPaddingOnly = "10000000 00657ea140655a44782747705d422fad";

constexpr size_t kPiece = size_t{1} << 18; // what is written or asked for at a time, at most

// What a step threw: ReadError, WriteError or -1 for nothing.
int Thrown(const std::function<void()>& step)
{
    try
    {
        step();
        return -1;
    }
    catch (CEncryptStream::Exception e)
    {
        return e;
    }
}

// What is in no file of tests/data: a single byte, texts with a zero in them, and what only other programs write.
TEST(EncryptStream, UnusualFieldsHaveKnownBytes)
{
    MemoryStream stream;
    stream.WriteU8(0x5A).WriteString(std::string_view("a\0b", 3));
    stream.WriteString(KxCommon::WideStringView(KXW("A\0B"), 3));
    ASSERT_TRUE(stream.Finish());
    EXPECT_EQ(stream.Data,
              FromHex("100000004acf7c425fd3fb756d17bbaf017ad1af"
                      "10000000e874179a260840c801473703125f70b8 100000002eb75c2976817d7dbefdd15656e2fbcc"
                      "10000000ad4fcca9523dfddcf6f17c9beafd2585 10000000ed02c51f1887d0139115975837a9fd39"));
    const Bytes others = FromHex(kU32Is5 + kWideAJupiterOdd + kU32Is0 + kPaddingOnly + kU32Is2 + kUnits1AndFF00);
    stream.Data.insert(stream.Data.end(), others.begin(), others.end());
    stream.Rewind();
    uint8_t byte = 0;
    std::string narrow[2];
    WideString wide[2];
    std::vector<uint16_t> array = {9};
    stream.ReadU8(byte).ReadString(narrow[0]).ReadString(wide[0]).ReadString(wide[1]).ReadString(narrow[1]);
    stream.ReadArray(array);
    EXPECT_EQ(byte, 0x5A);
    EXPECT_TRUE(narrow[0] == "a" && wide[0] == KXW("A") && wide[1] == KXW("A\u2641") && narrow[1].empty());
    EXPECT_EQ(array, (std::vector<uint16_t>{9, 1, 0xFF00}));
    EXPECT_EQ(Thrown([&] { stream.ReadU8(byte); }), CEncryptStream::ReadError);
}

TEST(EncryptStream, ForgedRecordsAreReadErrors)
{
    uint32_t u32 = 0;
    std::string narrow = "kept";
    WideString wide = KXW("kept");
    std::vector<uint16_t> array = {7};
    const auto number = [&](CEncryptStream& s) { s.ReadU32(u32); };
    const auto narrowText = [&](CEncryptStream& s) { s.ReadString(narrow); };
    const auto wideText = [&](CEncryptStream& s) { s.ReadString(wide); };
    const auto units = [&](CEncryptStream& s) { s.ReadArray(array); };
    const struct
    {
        const char* Name;
        std::string File;
        std::function<void(CEncryptStream&)> Read;
    } cases[] = {
        {"2 bytes read as 4", kU16Is1234, number},
        {"5 bytes read as 4", "10000000 3c740b72fafa65ea48970ff30ecaf3da", number},
        {"first byte of the padding wrong", "10000000 bfec215af21db19d1c30939d7108aed6", number},
        {"last byte of the padding 0", "10000000 657245f8532e2d1d083da25532903bb6", number},
        {"last byte of the padding 17", "10000000 f8676451f04a07f785e0f3dad89309a6", number},
        {"record without ciphertext", kEmpty, number},
        {"record longer than the file", "20000000" + kU32Is0, number},
        {"record of 4 GB", "f0ffffff" + kU32Is0, number},
        {"record of no whole block", "0f000000" + kU32Is0, number},
        {"empty string with zeros for padding", kU32Is0 + "10000000 fde4fbae4a09e020eff722969f83832b", narrowText},
        {"string of 4 GB", kU32IsFFFFFFFF + kAbc, narrowText},
        {"string one block longer than the file", kU32Is17 + kAbc, narrowText},
        {"string shorter than announced", kU32Is4 + kAbc, narrowText},
        {"wide string of 4 GB", kU32IsFFFFFFFF + kAbc, wideText},
        {"wide string longer than announced", kU32Is4 + kWideAJupiterOdd, wideText},
        {"array whose size wraps to nothing", kU32Is80000000 + kEmpty, units},
        {"array of 4 GB", kU32Is7FFFFFFF + kUnits1AndFF00, units},
        {"array longer than announced", kU32Is2 + kWideAJupiterOdd, units},
    };
    for (const auto& c : cases)
    {
        MemoryStream stream(FromHex(c.File));
        EXPECT_EQ(Thrown([&] { c.Read(stream); }), CEncryptStream::ReadError) << c.Name;
        EXPECT_TRUE(narrow == "kept" && wide == KXW("kept") && array == std::vector<uint16_t>{7}) << c.Name;
    }
}

// Groups that do not fill up, and more than one piece.
TEST(EncryptStream, ManyRecordsAreThoseOfOneAtATime)
{
    const Bytes source = Ramp(kRecord + 255);
    for (const size_t count : {0, 1, 7, 8, 9, 17, 1000})
    {
        SCOPED_TRACE(count);
        std::vector<const void*> records;
        MemoryStream single;
        MemoryStream many;
        for (size_t i = 0; i < count; ++i)
        {
            records.push_back(source.data() + i % 256);
            EXPECT_TRUE(single.Write(records.back(), kRecord, true));
        }
        EXPECT_TRUE(many.WriteRecords(records.data(), count, kRecord));
        EXPECT_TRUE(many.Finish() && single.Finish());
        EXPECT_EQ(many.Data, single.Data);
        EXPECT_EQ(many.Data.size(), count * kRecordOnDisk);
        EXPECT_EQ(many.Calls.size(), (many.Data.size() + kPiece - 1) / kPiece);
        for (size_t i = 0; i + 1 < many.Calls.size(); ++i)
            EXPECT_EQ(many.Calls[i], kPiece);

        many.Rewind();
        Bytes record(kRecord);
        for (size_t i = 0; i < count; ++i)
        {
            ASSERT_TRUE(many.Read(record.data(), kRecord, true)) << i;
            ASSERT_EQ(std::memcmp(record.data(), records[i], kRecord), 0) << i;
        }
        EXPECT_FALSE(many.Read(record.data(), kRecord, true));
        for (const size_t asked : many.Calls)
            EXPECT_LE(asked, std::max<size_t>(many.Data.size(), 16));
    }
}

// Longer than a piece: the chain continues from piece to piece.
TEST(EncryptStream, RecordMayBeLargerThanAPiece)
{
    const Bytes source = Ramp((size_t{5} << 17) + 3);
    MemoryStream stream;
    EXPECT_TRUE(stream.Write(source.data(), static_cast<uint32_t>(source.size()), true) && stream.Finish());
    stream.Rewind();
    stream.MostAtOnce = 99999;
    Bytes back(source.size());
    EXPECT_TRUE(stream.Read(back.data(), static_cast<uint32_t>(back.size()), true));
    EXPECT_EQ(back, source);
    for (const size_t asked : stream.Calls)
        EXPECT_LE(asked, kPiece);
}

TEST(EncryptStream, FailedWriteIsFoundOutAndStays)
{
    constexpr size_t kCount = 1000;
    const Bytes source = Ramp(kRecord);
    const std::vector<const void*> records(kCount, source.data());
    for (const size_t failAt : {size_t{0}, size_t{1}, size_t{262143}, size_t{2000000}, kCount * kRecordOnDisk - 1})
    {
        SCOPED_TRACE(failAt);
        MemoryStream stream;
        stream.FailAt = failAt;
        EXPECT_FALSE(stream.WriteRecords(records.data(), kCount, kRecord) && stream.Finish());
        stream.FailAt = MemoryStream::kNever;
        EXPECT_FALSE(stream.Finish());
        EXPECT_EQ(Thrown([&] { stream.WriteU8(1); }), CEncryptStream::WriteError);
    }
}

} // namespace
