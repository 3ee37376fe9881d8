// AES-128, CBC, and the padding of an encrypted record.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Aes128
{

inline constexpr size_t kBlock = 16;
inline constexpr size_t kRounds = 10;

/// The round keys of one key in both directions, computed once for a key.
struct KeySchedule
{
    explicit KeySchedule(const uint8_t key[16]) noexcept;
    alignas(16) uint8_t Encrypt[(kRounds + 1) * kBlock];
    alignas(16) uint8_t Decrypt[(kRounds + 1) * kBlock];
};

/// The block cipher under CBC: the processor's AES instructions if it has them, otherwise portable tables. Both give
/// the same bytes.
struct BlockCipher
{
    /// Encrypts `count` (at most kMostChains) independent CBC chains of `blocks` blocks each side by side: one chain
    /// is bound by the latency of the instructions, so several at once cost hardly more than one. In and out of a
    /// chain may be the same memory. ivs[i] is replaced by the chain's last ciphertext block.
    void (*EncryptChains)(const KeySchedule& keys, const uint8_t* const in[], uint8_t* const out[],
                          uint8_t (*ivs)[kBlock], size_t count, size_t blocks);
    /// Decrypts the next blocks of one CBC chain; in and out must not overlap. iv is replaced by the last ciphertext
    /// block.
    void (*DecryptChain)(const KeySchedule& keys, const uint8_t* in, uint8_t* out, uint8_t* iv, size_t blocks);
    const char* Name; // "aes-ni" or "tables"
};

inline constexpr size_t kMostChains = 8;

[[nodiscard]] const BlockCipher& PortableCipher() noexcept;
/// Null if the processor has no AES instructions.
[[nodiscard]] const BlockCipher* ProcessorCipher() noexcept;
/// The fastest for this processor; decided once.
[[nodiscard]] const BlockCipher& BestCipher() noexcept;

/// Bytes of ciphertext for a plaintext: 0 for none, otherwise the next multiple of 16 above size.
[[nodiscard]] constexpr uint64_t CipherBytes(uint64_t size) noexcept
{
    return size == 0 ? 0 : kBlock * (size / kBlock + 1);
}

/// Encrypts `count` plaintexts of `size` bytes each as separate CBC messages (zero initialisation vector, 1 to 16
/// padding bytes of that value; nothing for an empty plaintext). out[i] has room for CipherBytes(size).
void EncryptPadded(const BlockCipher& cipher, const KeySchedule& keys, const void* const in[], uint8_t* const out[],
                   size_t count, size_t size) noexcept;

/// Decrypts one message, or the rest of one after whole blocks, whose plaintext must be exactly `size` bytes long.
/// False if the ciphertext has another length (an empty plaintext may be 0 or 16 bytes of ciphertext) or bad padding;
/// out is then unspecified but never written past `size` bytes.
/// @param iv  the ciphertext block that precedes in, zeros at the beginning of a message; overwritten
[[nodiscard]] bool DecryptPadded(const BlockCipher& cipher, const KeySchedule& keys, uint8_t (&iv)[kBlock],
                                 const uint8_t* in, uint64_t cipherBytes, void* out, size_t size) noexcept;

} // namespace Aes128
