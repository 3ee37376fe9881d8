#include "persistence/Aes128.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

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

// Several chains, or one, in place.
void Encrypt(const BlockCipher& cipher, const KeySchedule& keys, std::vector<Bytes>& ivs, std::vector<Bytes>& chains)
{
    uint8_t* work[kMostChains];
    uint8_t blocks[kMostChains][kBlock];
    for (size_t i = 0; i < chains.size(); ++i)
    {
        work[i] = chains[i].data();
        std::copy_n(ivs[i].begin(), kBlock, blocks[i]);
    }
    cipher.EncryptChains(keys, work, work, blocks, chains.size(), chains[0].size() / kBlock);
    for (size_t i = 0; i < chains.size(); ++i)
        ivs[i].assign(blocks[i], blocks[i] + kBlock);
}

// Both ways, with every cipher. The initialisation vectors are left as the last blocks of the chains.
void Check(const KeySchedule& keys, const std::vector<Bytes>& ivs, const std::vector<Bytes>& plain,
           const std::vector<Bytes>& expected)
{
    for (const BlockCipher* const cipher : Ciphers())
    {
        SCOPED_TRACE(testing::Message() << plain.size() << " x " << plain[0].size() << ", " << cipher->Name);
        std::vector<Bytes> chains = plain, left = ivs;
        Encrypt(*cipher, keys, left, chains);
        EXPECT_TRUE(chains == expected);
        for (size_t i = 0; i < plain.size(); ++i)
        {
            Bytes iv = ivs[i], back(plain[i].size());
            cipher->DecryptChain(keys, expected[i].data(), back.data(), iv.data(), back.size() / kBlock);
            EXPECT_TRUE(back == plain[i] && iv == left[i]);
            EXPECT_TRUE(back.empty() ? iv == ivs[i] : std::equal(iv.begin(), iv.end(), expected[i].end() - kBlock));
        }
    }
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
        {"SP 800-38A F.2.1", "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f",
         "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
         "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710",
         "7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
         "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.Name);
        Check(KeySchedule(FromHex(c.Key).data()), {FromHex(c.Iv)}, {FromHex(c.Plain)}, {FromHex(c.Cipher)});
    }
}

// Every number of chains and every kind of remainder, against the tables.
TEST(Aes128, CiphersAgree)
{
    std::mt19937 random(1);
    const auto randomBytes = [&](size_t size)
    {
        Bytes bytes(size);
        std::generate(bytes.begin(), bytes.end(), std::ref(random));
        return bytes;
    };
    for (size_t count = 1; count <= kMostChains; ++count)
    {
        for (const size_t blocks : {0, 1, 2, 7, 8, 9, 31})
        {
            const KeySchedule keys(randomBytes(kBlock).data());
            std::vector<Bytes> plain, ivs;
            for (size_t i = 0; i < count; ++i)
            {
                plain.push_back(randomBytes(blocks * kBlock));
                ivs.push_back(randomBytes(kBlock));
            }
            std::vector<Bytes> expected = plain, left = ivs;
            Encrypt(PortableCipher(), keys, left, expected);
            Check(keys, ivs, plain, expected);
        }
    }
}

} // namespace
