// AES-128 with tables, CBC and padding. The tables follow from the definition of the cipher and are computed by the
// compiler. That their look-ups leave traces in the cache does not matter: the key is not secret (docs/security.md).
#include "persistence/Aes128.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace Aes128
{
namespace
{

using ByteTable = std::array<uint8_t, 256>;
using WordTable = std::array<uint32_t, 256>;

constexpr uint8_t Double(uint8_t x)
{
    return static_cast<uint8_t>((x << 1) ^ ((x & 0x80) != 0 ? 0x1b : 0));
}

constexpr uint8_t Multiply(uint8_t x, uint8_t factor)
{
    uint8_t product = 0;
    for (; factor != 0; factor = static_cast<uint8_t>(factor >> 1), x = Double(x))
    {
        if ((factor & 1) != 0)
            product ^= x;
    }
    return product;
}

constexpr ByteTable MakeSBox()
{
    ByteTable box{};
    box[0] = 0x63; // zero has no inverse
    uint8_t element = 1;
    uint8_t inverse = 1;
    do
    {
        // 3 generates the field and 0xf6 is its inverse, so the pair runs through every element and its inverse.
        element = Multiply(element, 3);
        inverse = Multiply(inverse, 0xf6);
        box[element] = static_cast<uint8_t>(inverse ^ std::rotl(inverse, 1) ^ std::rotl(inverse, 2) ^
                                            std::rotl(inverse, 3) ^ std::rotl(inverse, 4) ^ 0x63);
    } while (element != 1);
    return box;
}

constexpr ByteTable Invert(const ByteTable& box)
{
    ByteTable inverse{};
    for (size_t i = 0; i < box.size(); ++i)
        inverse[box[i]] = static_cast<uint8_t>(i);
    return inverse;
}

// What one byte of a row contributes to its column: substitution and column mixing in one look-up.
constexpr std::array<WordTable, 4> MakeRoundTables(const ByteTable& box, const std::array<uint8_t, 4>& factors)
{
    std::array<WordTable, 4> tables{};
    for (size_t i = 0; i < box.size(); ++i)
    {
        uint32_t column = 0;
        for (int row = 3; row >= 0; --row)
            column = column << 8 | Multiply(box[i], factors[static_cast<size_t>(row)]);
        for (int row = 0; row < 4; ++row)
            tables[static_cast<size_t>(row)][i] = std::rotl(column, 8 * row);
    }
    return tables;
}

constexpr ByteTable kSBox = MakeSBox();
constexpr ByteTable kInverseSBox = Invert(kSBox);
constexpr std::array<WordTable, 4> kEncrypt = MakeRoundTables(kSBox, {2, 1, 1, 3});
constexpr std::array<WordTable, 4> kDecrypt = MakeRoundTables(kInverseSBox, {14, 9, 13, 11});

// A state or round key as it lies in memory: four columns, the first row in the lowest byte.
static_assert(std::endian::native == std::endian::little);
using Columns = std::array<uint32_t, 4>;

constexpr uint8_t Row(uint32_t column, int row)
{
    return static_cast<uint8_t>(column >> (8 * row));
}

Columns Load(const uint8_t* from)
{
    Columns state;
    std::memcpy(state.data(), from, kBlock);
    return state;
}

void Store(uint8_t* to, const Columns& state)
{
    std::memcpy(to, state.data(), kBlock);
}

Columns operator^(const Columns& a, const Columns& b)
{
    return {a[0] ^ b[0], a[1] ^ b[1], a[2] ^ b[2], a[3] ^ b[3]};
}

// step: how many columns further the next row's byte comes from, 1 when encrypting, 3 (back by one) when decrypting.
template <size_t step>
Columns CryptBlock(Columns state, const uint8_t* keys, const std::array<WordTable, 4>& tables, const ByteTable& box)
{
    state = state ^ Load(keys);
    for (size_t round = 1; round < kRounds; ++round)
    {
        Columns next = Load(keys + round * kBlock);
        for (size_t i = 0; i < 4; ++i)
        {
            next[i] ^= tables[0][Row(state[i], 0)] ^ tables[1][Row(state[(i + step) % 4], 1)] ^
                       tables[2][Row(state[(i + 2 * step) % 4], 2)] ^ tables[3][Row(state[(i + 3 * step) % 4], 3)];
        }
        state = next;
    }
    Columns last = Load(keys + kRounds * kBlock);
    for (size_t i = 0; i < 4; ++i)
    {
        for (size_t row = 0; row < 4; ++row)
        {
            const uint8_t byte = box[Row(state[(i + row * step) % 4], static_cast<int>(row))];
            last[i] ^= static_cast<uint32_t>(byte) << (8 * row);
        }
    }
    return last;
}

void EncryptChains(const KeySchedule& keys, const uint8_t* const in[], uint8_t* const out[], uint8_t (*ivs)[kBlock],
                   size_t count, size_t blocks)
{
    for (size_t chain = 0; chain < count; ++chain)
    {
        Columns state = Load(ivs[chain]);
        for (size_t offset = 0; offset < blocks * kBlock; offset += kBlock)
        {
            state = CryptBlock<1>(state ^ Load(in[chain] + offset), keys.Encrypt, kEncrypt, kSBox);
            Store(out[chain] + offset, state);
        }
        Store(ivs[chain], state);
    }
}

void DecryptChain(const KeySchedule& keys, const uint8_t* in, uint8_t* out, uint8_t* iv, size_t blocks)
{
    Columns previous = Load(iv);
    for (size_t offset = 0; offset < blocks * kBlock; offset += kBlock)
    {
        const Columns block = Load(in + offset);
        Store(out + offset, previous ^ CryptBlock<3>(block, keys.Decrypt, kDecrypt, kInverseSBox));
        previous = block;
    }
    Store(iv, previous);
}

const BlockCipher* const g_Processor = ProcessorCipher(); // CPUID takes a microsecond in a virtual machine

} // namespace

KeySchedule::KeySchedule(const uint8_t key[16]) noexcept
{
    std::memcpy(Encrypt, key, kBlock);
    uint8_t constant = 1;
    for (size_t i = kBlock; i < sizeof Encrypt; i += 4)
    {
        uint8_t word[4];
        std::memcpy(word, Encrypt + i - 4, sizeof word);
        if (i % kBlock == 0)
        {
            std::rotate(word, word + 1, word + 4);
            for (uint8_t& byte : word)
                byte = kSBox[byte];
            word[0] ^= constant;
            constant = Double(constant);
        }
        for (size_t row = 0; row < 4; ++row)
            Encrypt[i + row] = Encrypt[i + row - kBlock] ^ word[row];
    }

    // In reverse order, and the inner round keys with their columns unmixed: so that the rounds of decryption, too, can
    // substitute before they mix, both with tables and with the processor's instructions.
    for (size_t i = 0; i < sizeof Decrypt; i += 4)
    {
        const size_t round = i / kBlock;
        const uint8_t* const word = Encrypt + (kRounds - round) * kBlock + i % kBlock;
        const bool inner = round != 0 && round != kRounds;
        for (size_t row = 0; row < 4; ++row)
        {
            Decrypt[i + row] =
                inner ? static_cast<uint8_t>(Multiply(word[row], 14) ^ Multiply(word[(row + 1) % 4], 11) ^
                                             Multiply(word[(row + 2) % 4], 13) ^ Multiply(word[(row + 3) % 4], 9))
                      : word[row];
        }
    }
}

const BlockCipher& PortableCipher() noexcept
{
    static constexpr BlockCipher cipher = {EncryptChains, DecryptChain, "tables"};
    return cipher;
}

const BlockCipher& BestCipher() noexcept
{
    return g_Processor != nullptr ? *g_Processor : PortableCipher();
}

void EncryptPadded(const BlockCipher& cipher, const KeySchedule& keys, const void* const in[], uint8_t* const out[],
                   size_t count, size_t size) noexcept
{
    if (size == 0)
        return;
    const size_t rest = size % kBlock;
    const size_t whole = size - rest;
    for (size_t first = 0; first < count; first += kMostChains)
    {
        const size_t chains = std::min(kMostChains, count - first);
        uint8_t ivs[kMostChains][kBlock] = {};
        uint8_t tails[kMostChains][kBlock];
        const uint8_t* from[kMostChains];
        uint8_t* to[kMostChains];
        for (size_t i = 0; i < chains; ++i)
        {
            from[i] = static_cast<const uint8_t*>(in[first + i]);
            to[i] = out[first + i];
        }
        cipher.EncryptChains(keys, from, to, ivs, chains, whole / kBlock);
        for (size_t i = 0; i < chains; ++i)
        {
            std::memcpy(tails[i], from[i] + whole, rest);
            std::memset(tails[i] + rest, static_cast<int>(kBlock - rest), kBlock - rest);
            from[i] = tails[i];
            to[i] += whole;
        }
        cipher.EncryptChains(keys, from, to, ivs, chains, 1);
    }
}

bool DecryptPadded(const BlockCipher& cipher, const KeySchedule& keys, uint8_t (&iv)[kBlock], const uint8_t* in,
                   uint64_t cipherBytes, void* out, size_t size) noexcept
{
    const size_t rest = size % kBlock;
    const size_t whole = size - rest;
    if (size == 0 && cipherBytes == 0)
        return true;
    if (cipherBytes != uint64_t{whole} + kBlock)
        return false;
    cipher.DecryptChain(keys, in, static_cast<uint8_t*>(out), iv, whole / kBlock);
    uint8_t last[kBlock];
    cipher.DecryptChain(keys, in + whole, last, iv, 1);
    if (!std::all_of(last + rest, last + kBlock, [rest](uint8_t byte) { return byte == kBlock - rest; }))
        return false;
    std::copy_n(last, rest, static_cast<uint8_t*>(out) + whole);
    return true;
}

} // namespace Aes128
