#include "persistence/Aes128.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "persistence/FileFormat.h"
#include "tests/support/Hex.h"

namespace
{

using namespace Aes128;

std::vector<const BlockCipher*> Ciphers()
{
    std::vector<const BlockCipher*> ciphers = {&PortableCipher()};
    if (ProcessorCipher() != nullptr)
        ciphers.push_back(ProcessorCipher());
    return ciphers;
}

struct Iv
{
    uint8_t Block[1][kBlock] = {};
    explicit Iv(const Bytes& bytes = Bytes(kBlock)) { std::copy_n(bytes.begin(), kBlock, Block[0]); }
};

Bytes Encrypt(const BlockCipher& cipher, const KeySchedule& keys, Iv iv, const Bytes& plain)
{
    Bytes out(plain.size());
    const uint8_t* const from = plain.data();
    uint8_t* const to = out.data();
    cipher.EncryptChains(keys, &from, &to, iv.Block, 1, plain.size() / kBlock);
    return out;
}

TEST(Aes128, PublishedVectors)
{
    const struct
    {
        const char* Name;
        const char* Key;
        const char* Iv;
        const char* Plain;
        const char* Cipher;
    } cases[] = {
        {"FIPS-197 C.1", "000102030405060708090a0b0c0d0e0f", "00000000000000000000000000000000",
         "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
        {"SP 800-38A F.1.1, second block", "2b7e151628aed2a6abf7158809cf4f3c", "00000000000000000000000000000000",
         "ae2d8a571e03ac9c9eb76fac45af8e51", "f5d3d58503b9699de785895a96fdbaaf"},
        {"SP 800-38A F.2.1", "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f",
         "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
         "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710",
         "7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
         "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"},
    };
    for (const auto& c : cases)
    {
        const KeySchedule keys(FromHex(c.Key).data());
        const Bytes plain = FromHex(c.Plain);
        const Bytes expected = FromHex(c.Cipher);
        for (const BlockCipher* const cipher : Ciphers())
        {
            SCOPED_TRACE(testing::Message() << c.Name << ", " << cipher->Name);
            EXPECT_EQ(Encrypt(*cipher, keys, Iv(FromHex(c.Iv)), plain), expected);
            Iv iv(FromHex(c.Iv));
            Bytes back(plain.size());
            cipher->DecryptChain(keys, expected.data(), back.data(), iv.Block[0], expected.size() / kBlock);
            EXPECT_EQ(back, plain);
            EXPECT_TRUE(std::equal(iv.Block[0], iv.Block[0] + kBlock, expected.end() - kBlock));
        }
    }
}

// The expected bytes are those of `openssl enc -aes-128-cbc` with the library's key and a zero initialisation vector.
TEST(Aes128, RecordsAreThoseOfAnotherImplementation)
{
    const struct
    {
        size_t Size;
        const char* Cipher; // null: too long, Sum is its checksum
        uint64_t Sum;
    } cases[] = {
        {0, "", 0},
        {1, "47db9d1d0eff9c1cadfb787404ddc249", 0},
        {15, "f4020ae5e472adefc8e94cb811e8cfa4", 0},
        {16, "9866ce6f63c70b9dc7c07a511755ac8669630d7895be69844933cfb64922aec6", 0},
        {17, "9866ce6f63c70b9dc7c07a511755ac862f6e0ae414c24f193430c4ba5d2b3cb0", 0},
        {2845, nullptr, 0x4c06add58354f2c8},
    };
    const KeySchedule keys(FileFormat::kKey);
    for (const auto& c : cases)
    {
        const Bytes plain = Ramp(c.Size);
        for (const BlockCipher* const cipher : Ciphers())
        {
            SCOPED_TRACE(testing::Message() << c.Size << " bytes, " << cipher->Name);
            Bytes out(CipherBytes(c.Size));
            const void* const from = plain.data();
            uint8_t* const to = out.data();
            EncryptPadded(*cipher, keys, &from, &to, 1, c.Size);
            if (c.Cipher != nullptr)
                EXPECT_EQ(out, FromHex(c.Cipher));
            else
                EXPECT_EQ(Checksum(out), c.Sum);

            Iv iv;
            Bytes back(c.Size);
            EXPECT_TRUE(DecryptPadded(*cipher, keys, iv.Block[0], out.data(), out.size(), back.data(), c.Size));
            EXPECT_EQ(back, plain);
        }
    }
}

// Every number of chains and every remainder of a group, also in place, against the tables one chain at a time.
TEST(Aes128, CiphersAgree)
{
    std::mt19937 random(1);
    for (size_t count = 1; count <= kMostChains; ++count)
    {
        for (const size_t blocks : {size_t{0}, size_t{1}, size_t{2}, size_t{7}, size_t{8}, size_t{9}, size_t{31}})
        {
            Bytes key(kBlock);
            std::vector<Bytes> plain(count, Bytes(blocks * kBlock));
            std::vector<Bytes> ivs(count, Bytes(kBlock));
            std::generate(key.begin(), key.end(), std::ref(random));
            for (size_t i = 0; i < count; ++i)
            {
                std::generate(plain[i].begin(), plain[i].end(), std::ref(random));
                std::generate(ivs[i].begin(), ivs[i].end(), std::ref(random));
            }
            const KeySchedule keys(key.data());
            for (const BlockCipher* const cipher : Ciphers())
            {
                SCOPED_TRACE(testing::Message() << count << " x " << blocks << ", " << cipher->Name);
                std::vector<Bytes> work = plain;
                const uint8_t* from[kMostChains];
                uint8_t* to[kMostChains];
                uint8_t chainIvs[kMostChains][kBlock];
                for (size_t i = 0; i < count; ++i)
                {
                    from[i] = to[i] = work[i].data();
                    std::copy_n(ivs[i].begin(), kBlock, chainIvs[i]);
                }
                cipher->EncryptChains(keys, from, to, chainIvs, count, blocks);
                for (size_t i = 0; i < count; ++i)
                {
                    EXPECT_EQ(work[i], Encrypt(PortableCipher(), keys, Iv(ivs[i]), plain[i])) << i;
                    const Bytes& lastBlock = blocks == 0 ? ivs[i] : work[i];
                    EXPECT_TRUE(std::equal(chainIvs[i], chainIvs[i] + kBlock, lastBlock.end() - kBlock)) << i;
                    Bytes back(plain[i].size());
                    cipher->DecryptChain(keys, work[i].data(), back.data(), ivs[i].data(), blocks);
                    EXPECT_EQ(back, plain[i]) << i;
                    ivs[i] = Bytes(chainIvs[i], chainIvs[i] + kBlock);
                }
            }
        }
    }
}

TEST(Aes128, WrongLengthOrPaddingIsRejected)
{
    const char* const block = "00000000000000000000000000000000";
    const struct
    {
        const char* Name;
        const char* Plain; // with its padding
        size_t Size;       // asked for
        uint64_t CipherBytes;
        bool Accepted;
    } cases[] = {
        {"empty", "", 0, 0, true},
        {"empty, with a block of padding", "10101010101010101010101010101010", 0, 16, true},
        {"empty, with a block of something else", block, 0, 16, false},
        {"empty, with two blocks", "10101010101010101010101010101010 10101010101010101010101010101010", 0, 32, false},
        {"right", "aaaaaaaa0c0c0c0c0c0c0c0c0c0c0c0c", 4, 16, true},
        {"nothing for something", "", 4, 0, false},
        {"no whole block", "aaaaaaaa0c0c0c0c0c0c0c0c0c0c0c0c", 4, 15, false},
        {"a byte too many", "aaaaaaaa0c0c0c0c0c0c0c0c0c0c0c0c 00", 4, 17, false},
        {"a block too many", "aaaaaaaa0c0c0c0c0c0c0c0c0c0c0c0c 0c0c0c0c0c0c0c0c0c0c0c0c0c0c0c0c", 4, 32, false},
        {"longer than asked for", "aaaaaaaaaa0b0b0b0b0b0b0b0b0b0b0b", 4, 16, false},
        {"shorter than asked for", "aaaaaa0d0d0d0d0d0d0d0d0d0d0d0d0d", 4, 16, false},
        {"first padding byte wrong", "aaaaaaaa0b0c0c0c0c0c0c0c0c0c0c0c", 4, 16, false},
        {"last padding byte zero", "aaaaaaaa0c0c0c0c0c0c0c0c0c0c0c00", 4, 16, false},
        {"last padding byte 17", "aaaaaaaa0c0c0c0c0c0c0c0c0c0c0c11", 4, 16, false},
        {"whole block of padding missing", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", 16, 16, false},
    };
    const KeySchedule keys(FileFormat::kKey);
    for (const auto& c : cases)
    {
        for (const BlockCipher* const cipher : Ciphers())
        {
            SCOPED_TRACE(testing::Message() << c.Name << ", " << cipher->Name);
            Bytes plain = FromHex(c.Plain);
            plain.resize((plain.size() + kBlock - 1) / kBlock * kBlock);
            const Bytes in = Encrypt(*cipher, keys, Iv(), plain);
            Iv iv;
            Bytes out(c.Size + 1, 0xcc);
            EXPECT_EQ(DecryptPadded(*cipher, keys, iv.Block[0], in.data(), c.CipherBytes, out.data(), c.Size),
                      c.Accepted);
            EXPECT_EQ(out.back(), 0xcc);
        }
    }
}

} // namespace
