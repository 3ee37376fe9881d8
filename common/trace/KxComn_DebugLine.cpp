// The text of a trace line. Its form is fixed, since people and tools read these files.
#include "common/trace/KxComn_DebugLine.h"

#include <algorithm>
#include <cstddef>
#include <mbstring.h>
#include <string_view>
#include <type_traits>
#include <vector>

#include "common/srclib/KxComn_String.h"
#include "common/srclib/KxComn_Trace.h"

namespace KxCommon::DebugLine
{

namespace
{

constexpr size_t kMessageSizes[] = {256, 1024, 4096};
constexpr uint32_t kDumpLimit = 1800;
constexpr uint32_t kDumpRow = 16;

template <class Character>
struct Texts;
template <>
struct Texts<char>
{
    static constexpr const char* kTime = "%02d/%02d/%04d %02d:%02d:%02d.%03d";
    static constexpr const char* kOrigin = " %04x:%04x %3s <%s> ";
    static constexpr const char* kPlace = " - %s(%lu)\r\n";
    static constexpr const char* kError = "(debug log error)";
    static constexpr const char* kNullFormat = "(debug log error) NULL _lpctszFormat";
};
template <>
struct Texts<wchar_t>
{
    static constexpr const wchar_t* kTime = L"%02d/%02d/%04d %02d:%02d:%02d.%03d";
    static constexpr const wchar_t* kOrigin = L" %04x:%04x %3s <%s> ";
    static constexpr const wchar_t* kPlace = L" - %s(%lu)\r\n";
    static constexpr const wchar_t* kError = L"(debug log error)";
    static constexpr const wchar_t* kNullFormat = L"(debug log error) NULL _lpctszFormat";
};

template <class Character>
std::basic_string<Character> To(std::string_view text)
{
    if constexpr (std::is_same_v<Character, char>)
        return std::string(text);
    else
        return String::ToWide(text);
}
template <class Character>
std::wstring To(std::wstring_view text)
{
    static_assert(std::is_same_v<Character, wchar_t>);
    return std::wstring(text);
}

template <class Character>
std::basic_string_view<Character> FileName(const Character* file)
{
    std::basic_string_view<Character> name;
    if (file != nullptr)
        name = file;
    static constexpr Character kSeparators[] = {'\\', '/', '\0'};
    return name.substr(name.find_last_of(kSeparators) + 1);
}

const char* Tag(uint32_t level)
{
    switch (level)
    {
    case kTraceDetail:
        return ".w.";
    case kTraceCall:
        return "@@@";
    case kTraceError:
        return "!!!";
    default:
        return "???";
    }
}

template <class Character>
std::basic_string<Character> MakeMessage(const Character* format, va_list arguments)
{
    if (format == nullptr)
        return Texts<Character>::kNullFormat;
    for (const size_t size : kMessageSizes)
    {
        std::vector<Character> buffer(size);
        const int length = String::FormatInto(buffer.data(), size, format, arguments);
        if (length >= 0)
            return std::basic_string<Character>(buffer.data(), static_cast<size_t>(length));
        if (length == String::kCannotFormat)
            return Texts<Character>::kError;
    }
    return {}; // kept: a message that is too long is left out, not cut
}

template <class Character, class FileCharacter>
std::basic_string<Character> MakeLine(const SYSTEMTIME& time, uint32_t level, const std::string& traceName,
                                      const std::basic_string<Character>& message, const FileCharacter* file,
                                      uint32_t lineNumber)
{
    std::basic_string<Character> line;
    String::Format(line, Texts<Character>::kTime, time.wDay, time.wMonth, time.wYear, time.wHour, time.wMinute,
                   time.wSecond, time.wMilliseconds);
    std::basic_string<Character> piece;
    String::Format(piece, Texts<Character>::kOrigin, static_cast<unsigned>(::GetCurrentProcessId()),
                   static_cast<unsigned>(::GetCurrentThreadId()), To<Character>(std::string_view(Tag(level))).c_str(),
                   To<Character>(std::string_view(traceName)).c_str());
    line += piece;
    line += message;
    String::Format(piece, Texts<Character>::kPlace, To<Character>(FileName(file)).c_str(),
                   static_cast<unsigned long>(lineNumber));
    return line + piece;
}

} // namespace

std::string Message(const char* format, va_list arguments)
{
    return MakeMessage(format, arguments);
}

std::wstring Message(const wchar_t* format, va_list arguments)
{
    return MakeMessage(format, arguments);
}

std::string DumpMessage(const void* data, uint32_t size)
{
    const unsigned char* const bytes = static_cast<const unsigned char*>(data);
    const uint32_t count = bytes == nullptr ? 0 : std::min(size, kDumpLimit);
    std::string message = ">>> dump memory";
    std::string piece;
    if (size > kDumpLimit)
    {
        String::Format(piece, "\r\n??? size too big, dump %d bytes only!", static_cast<int>(kDumpLimit));
        message += piece;
    }
    for (uint32_t row = 0; row < count; row += kDumpRow)
    {
        const uint32_t end = std::min(row + kDumpRow, count);
        message += "\r\n";
        for (uint32_t i = row; i < end; ++i)
        {
            String::Format(piece, " %02x", bytes[i]);
            message += piece;
        }
        for (uint32_t i = row; i < end; ++i)
            message += ::_ismbcprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '.';
    }
    return message;
}

std::string Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName, const std::string& message,
                 const char* file, uint32_t lineNumber)
{
    return MakeLine(time, level, traceName, message, file, lineNumber);
}

std::wstring Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName, const std::wstring& message,
                  const char* file, uint32_t lineNumber)
{
    return MakeLine(time, level, traceName, message, file, lineNumber);
}

std::wstring Line(const SYSTEMTIME& time, uint32_t level, const std::string& traceName, const std::wstring& message,
                  const wchar_t* file, uint32_t lineNumber)
{
    return MakeLine(time, level, traceName, message, file, lineNumber);
}

} // namespace KxCommon::DebugLine
