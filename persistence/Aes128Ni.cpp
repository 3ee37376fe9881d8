// AES-128 with the processor's own instructions. Each takes several cycles to return its result, but a new one can
// start every cycle or faster, so several blocks must be in progress at once. That is why the blocks of a group are
// spelled out by fold expressions and stay in registers.
#include "persistence/Aes128.h"

#include <utility>

#include "common/srclib/KxComn_Port.h"

#if defined(KX_CPUID)
#include <emmintrin.h>
#include <wmmintrin.h>

namespace Aes128
{
namespace
{

constexpr size_t kGroup = kMostChains; // blocks in progress when decrypting

KX_TARGET("aes") KX_ALWAYS_INLINE __m128i Load(const uint8_t* from)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

KX_TARGET("aes") KX_ALWAYS_INLINE void Store(uint8_t* to, __m128i block)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), block);
}

template <size_t... I>
KX_TARGET("aes")
void EncryptGroup(const KeySchedule& keys, const uint8_t* const in[], uint8_t* const out[], uint8_t (*ivs)[kBlock],
                  size_t blocks, std::index_sequence<I...>)
{
    // Copies that no store to out can change.
    const uint8_t* const from[] = {in[I]...};
    uint8_t* const to[] = {out[I]...};
    __m128i state[] = {Load(ivs[I])...};
    for (size_t offset = 0; offset < blocks * kBlock; offset += kBlock)
    {
        __m128i key = Load(keys.Encrypt);
        ((state[I] = _mm_xor_si128(_mm_xor_si128(state[I], Load(from[I] + offset)), key)), ...);
        for (size_t round = 1; round < kRounds; ++round)
        {
            key = Load(keys.Encrypt + round * kBlock);
            ((state[I] = _mm_aesenc_si128(state[I], key)), ...);
        }
        key = Load(keys.Encrypt + kRounds * kBlock);
        ((state[I] = _mm_aesenclast_si128(state[I], key)), ...);
        (Store(to[I] + offset, state[I]), ...);
    }
    (Store(ivs[I], state[I]), ...);
}

template <size_t chains = kMostChains>
void EncryptChains(const KeySchedule& keys, const uint8_t* const in[], uint8_t* const out[], uint8_t (*ivs)[kBlock],
                   size_t count, size_t blocks)
{
    if (count == chains)
        EncryptGroup(keys, in, out, ivs, blocks, std::make_index_sequence<chains>());
    else if constexpr (chains > 1)
        EncryptChains<chains - 1>(keys, in, out, ivs, count, blocks);
}

// Returns the last ciphertext block, for the next group.
template <size_t... I>
KX_TARGET("aes")
KX_ALWAYS_INLINE __m128i
    DecryptGroup(const KeySchedule& keys, const uint8_t* in, uint8_t* out, __m128i previous, std::index_sequence<I...>)
{
    __m128i key = Load(keys.Decrypt);
    __m128i state[] = {_mm_xor_si128(Load(in + I * kBlock), key)...};
    for (size_t round = 1; round < kRounds; ++round)
    {
        key = Load(keys.Decrypt + round * kBlock);
        ((state[I] = _mm_aesdec_si128(state[I], key)), ...);
    }
    key = Load(keys.Decrypt + kRounds * kBlock);
    ((state[I] = _mm_aesdeclast_si128(state[I], key)), ...);
    ((Store(out + I * kBlock, _mm_xor_si128(state[I], previous)), previous = Load(in + I * kBlock)), ...);
    return previous;
}

KX_TARGET("aes")
void DecryptChain(const KeySchedule& keys, const uint8_t* in, uint8_t* out, uint8_t* iv, size_t blocks)
{
    __m128i previous = Load(iv);
    for (; blocks >= kGroup; blocks -= kGroup, in += kGroup * kBlock, out += kGroup * kBlock)
        previous = DecryptGroup(keys, in, out, previous, std::make_index_sequence<kGroup>());
    for (; blocks > 0; --blocks, in += kBlock, out += kBlock)
        previous = DecryptGroup(keys, in, out, previous, std::make_index_sequence<1>());
    Store(iv, previous);
}

bool HasAesInstructions() noexcept
{
    int registers[4] = {};
    KX_CPUID(registers, 1);
    return (registers[2] & (1 << 25)) != 0;
}

} // namespace

const BlockCipher* ProcessorCipher() noexcept
{
    static constexpr BlockCipher cipher = {EncryptChains<>, DecryptChain, "aes-ni"};
    return HasAesInstructions() ? &cipher : nullptr;
}

} // namespace Aes128

#else

const Aes128::BlockCipher* Aes128::ProcessorCipher() noexcept
{
    return nullptr;
}

#endif
