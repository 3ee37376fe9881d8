// Texts into the fields of records, with the reason when one does not fit.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace KxPolicy
{

[[nodiscard]] bool IsZero(const void* from, size_t size) noexcept;

/// Two lower-case digits a byte.
[[nodiscard]] std::string HexText(const void* from, size_t size);
/// Digits in any case, blanks between bytes allowed. False for anything else; bytes then holds what came before.
[[nodiscard]] bool ParseHex(std::string_view text, std::string& bytes);

/// UTF-8 into a narrow field of room bytes: in the active code page, NUL after it to the field's end. On failure the
/// field stays as it was and why says the reason.
[[nodiscard]] bool PutNarrow(void* field, size_t room, std::string_view text, std::string& why);
/// The same for UTF-16 in a field of room units at any address.
[[nodiscard]] bool PutWide(void* field, size_t room, std::string_view text, std::string& why);

/// A field's text in JSON: always text that the two functions above accept, though it may stand for other bytes when
/// the field's bytes cannot be expressed as text.
[[nodiscard]] std::string NarrowFieldText(const void* field, size_t room);
[[nodiscard]] std::string WideFieldText(const void* field, size_t room);

} // namespace KxPolicy
