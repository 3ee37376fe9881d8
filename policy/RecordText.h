// Writes texts to the fields of records, with the reason if one does not fit.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace KxPolicy
{

[[nodiscard]] bool IsZero(const void* from, size_t size) noexcept;

/// Two lower-case digits per byte.
[[nodiscard]] std::string HexText(const void* from, size_t size);
/// Digits in any case, blanks between bytes allowed. False for anything else; bytes then holds what came before.
[[nodiscard]] bool ParseHex(std::string_view text, std::string& bytes);

/// Writes UTF-8 to a narrow field of room bytes, in the active code page and filled up with NUL. On failure the field
/// stays as it was and why gives the reason.
[[nodiscard]] bool PutNarrow(void* field, size_t room, std::string_view text, std::string& why);
/// The same for UTF-16 in a field of room units at any address.
[[nodiscard]] bool PutWide(void* field, size_t room, std::string_view text, std::string& why);

/// A field's text in JSON: always text that the two functions above accept, even if it stands for other bytes because
/// the field's bytes cannot be expressed as text.
[[nodiscard]] std::string NarrowFieldText(const void* field, size_t room);
[[nodiscard]] std::string WideFieldText(const void* field, size_t room);

} // namespace KxPolicy
