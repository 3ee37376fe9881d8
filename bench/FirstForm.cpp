// The store in its simplest form. Its files equal the library's byte for byte: docs/format.md.
#include "bench/FirstForm.h"

#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/srclib/KxComn_Windows.h"

namespace Bench
{
namespace
{

constexpr uint8_t kKey[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                              0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
constexpr uint32_t kVersion = 0x00020000;
constexpr size_t kRounds = 10;

// The usual four tables in each direction, columns as little-endian words.
struct Tables
{
    uint8_t Box[256];
    uint8_t Inverse[256];
    uint32_t Encrypt[4][256];
    uint32_t Decrypt[4][256];

    Tables()
    {
        uint8_t p = 1;
        uint8_t q = 1;
        do // p runs through the field's multiples of 3, q through their inverses
        {
            p = static_cast<uint8_t>(p ^ (p << 1) ^ (p & 0x80 ? 0x1b : 0));
            q = static_cast<uint8_t>(q ^ (q << 1));
            q = static_cast<uint8_t>(q ^ (q << 2));
            q = static_cast<uint8_t>(q ^ (q << 4));
            if (q & 0x80)
                q ^= 0x09;
            Box[p] =
                static_cast<uint8_t>(q ^ std::rotl(q, 1) ^ std::rotl(q, 2) ^ std::rotl(q, 3) ^ std::rotl(q, 4) ^ 0x63);
        } while (p != 1);
        Box[0] = 0x63;
        for (unsigned i = 0; i < 256; ++i)
            Inverse[Box[i]] = static_cast<uint8_t>(i);
        for (unsigned i = 0; i < 256; ++i)
        {
            const uint32_t s = Box[i];
            const uint32_t s2 = Double(s);
            const uint32_t d = Inverse[i];
            const uint32_t d2 = Double(d);
            const uint32_t d4 = Double(d2);
            const uint32_t d8 = Double(d4);
            const uint32_t e = s2 | s << 8 | s << 16 | (s2 ^ s) << 24;
            const uint32_t f = (d8 ^ d4 ^ d2) | (d8 ^ d) << 8 | (d8 ^ d4 ^ d) << 16 | (d8 ^ d2 ^ d) << 24;
            for (int t = 0; t < 4; ++t)
            {
                Encrypt[t][i] = std::rotl(e, 8 * t);
                Decrypt[t][i] = std::rotl(f, 8 * t);
            }
        }
    }
    static uint32_t Double(uint32_t x) { return ((x << 1) ^ (x & 0x80 ? 0x1b : 0)) & 0xff; }
};
const Tables& T()
{
    static const Tables tables;
    return tables;
}

class Cipher
{
public:
    explicit Cipher(bool encrypt)
    {
        const Tables& t = T();
        std::memcpy(m_Keys, kKey, 16);
        uint8_t constant = 1;
        for (size_t i = 4; i < 4 * (kRounds + 1); ++i)
        {
            uint32_t w = m_Keys[i - 1];
            if (i % 4 == 0)
            {
                w = std::rotr(w, 8);
                w = Substitute(t.Box, w) ^ constant;
                constant = static_cast<uint8_t>(Tables::Double(constant));
            }
            m_Keys[i] = m_Keys[i - 4] ^ w;
        }
        if (!encrypt)
            for (size_t i = 4; i < 4 * kRounds; ++i)
            {
                const uint32_t w = m_Keys[i];
                m_Keys[i] = t.Decrypt[0][t.Box[w & 255]] ^ t.Decrypt[1][t.Box[w >> 8 & 255]] ^
                            t.Decrypt[2][t.Box[w >> 16 & 255]] ^ t.Decrypt[3][t.Box[w >> 24]];
            }
    }

    void Encrypt(const uint8_t in[16], uint8_t out[16]) const
    {
        const auto& t = T().Encrypt;
        uint32_t a[4];
        Load(in, 0, a);
        for (size_t r = 1; r < kRounds; ++r)
        {
            uint32_t b[4];
            for (size_t c = 0; c < 4; ++c)
                b[c] = t[0][a[c] & 255] ^ t[1][a[(c + 1) & 3] >> 8 & 255] ^ t[2][a[(c + 2) & 3] >> 16 & 255] ^
                       t[3][a[(c + 3) & 3] >> 24] ^ m_Keys[4 * r + c];
            std::memcpy(a, b, 16);
        }
        Last(T().Box, a, 1, 0, out);
    }

    void Decrypt(const uint8_t in[16], uint8_t out[16]) const
    {
        const auto& t = T().Decrypt;
        uint32_t a[4];
        Load(in, 4 * kRounds, a);
        for (size_t r = kRounds - 1; r > 0; --r)
        {
            uint32_t b[4];
            for (size_t c = 0; c < 4; ++c)
                b[c] = t[0][a[c] & 255] ^ t[1][a[(c + 3) & 3] >> 8 & 255] ^ t[2][a[(c + 2) & 3] >> 16 & 255] ^
                       t[3][a[(c + 1) & 3] >> 24] ^ m_Keys[4 * r + c];
            std::memcpy(a, b, 16);
        }
        Last(T().Inverse, a, 3, kRounds, out);
    }

private:
    static uint32_t Substitute(const uint8_t* box, uint32_t w)
    {
        return box[w & 255] | uint32_t{box[w >> 8 & 255]} << 8 | uint32_t{box[w >> 16 & 255]} << 16 |
               uint32_t{box[w >> 24]} << 24;
    }
    void Load(const uint8_t in[16], size_t key, uint32_t a[4]) const
    {
        std::memcpy(a, in, 16);
        for (size_t c = 0; c < 4; ++c)
            a[c] ^= m_Keys[key + c];
    }
    void Last(const uint8_t* box, const uint32_t a[4], size_t step, size_t direction, uint8_t out[16]) const
    {
        const size_t key = direction == 0 ? 4 * kRounds : 0;
        for (size_t c = 0; c < 4; ++c)
        {
            const uint32_t w =
                (box[a[c] & 255] | uint32_t{box[a[(c + step) & 3] >> 8 & 255]} << 8 |
                 uint32_t{box[a[(c + 2) & 3] >> 16 & 255]} << 16 | uint32_t{box[a[(c + 4 - step) & 3] >> 24]} << 24) ^
                m_Keys[key + c];
            std::memcpy(out + 4 * c, &w, 4);
        }
    }
    uint32_t m_Keys[4 * (kRounds + 1)];
};

void WriteField(HANDLE file, const void* field, uint32_t size)
{
    const Cipher cipher(true);
    const uint32_t length = size == 0 ? 0 : 16 * (size / 16 + 1);
    auto* const buffer = static_cast<uint8_t*>(std::calloc(size + 16, 1));
    Check(buffer != nullptr, "calloc");
    const auto* in = static_cast<const uint8_t*>(field);
    uint8_t chain[16] = {};
    for (uint32_t at = 0; at < length; at += 16)
    {
        const uint32_t left = size - at < 16 ? size - at : 16;
        for (uint32_t i = 0; i < 16; ++i)
            chain[i] ^= i < left ? in[at + i] : static_cast<uint8_t>(16 - size % 16);
        cipher.Encrypt(chain, buffer + at);
        std::memcpy(chain, buffer + at, 16);
    }
    DWORD written = 0;
    Check(::WriteFile(file, &length, 4, &written, nullptr) != FALSE, "WriteFile");
    Check(::WriteFile(file, buffer, length, &written, nullptr) != FALSE, "WriteFile");
    std::free(buffer);
}

// Returns the plaintext's length, which must not be above size.
uint32_t ReadField(HANDLE file, void* field, uint32_t size)
{
    uint32_t length = 0;
    DWORD got = 0;
    Check(::ReadFile(file, &length, 4, &got, nullptr) != FALSE, "ReadFile");
    if (length == 0)
        return 0;
    auto* const buffer = static_cast<uint8_t*>(std::malloc(length));
    Check(buffer != nullptr && length % 16 == 0 && length - 16 <= size, "length of a field");
    Check(::ReadFile(file, buffer, length, &got, nullptr) != FALSE, "ReadFile");
    const Cipher cipher(false);
    auto* const out = static_cast<uint8_t*>(field);
    const uint8_t zero[16] = {};
    const uint8_t* chain = zero;
    uint8_t plain[16];
    uint32_t result = 0;
    for (uint32_t at = 0; at < length; at += 16)
    {
        cipher.Decrypt(buffer + at, plain);
        for (uint32_t i = 0; i < 16; ++i)
            plain[i] ^= chain[i];
        chain = buffer + at;
        const uint32_t keep = at + 16 < length ? 16u : 16u - plain[15];
        std::memcpy(out + at, plain, keep);
        result += keep;
    }
    std::free(buffer);
    return result;
}

void WriteU32(HANDLE file, uint32_t value)
{
    WriteField(file, &value, sizeof(value));
}

void WriteText(HANDLE file, const void* text, size_t bytes)
{
    WriteU32(file, static_cast<uint32_t>(bytes));
    WriteField(file, text, static_cast<uint32_t>(bytes));
}

} // namespace

void FirstForm::Fill(const Shape& shape)
{
    m_Sets.clear();
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
        for (size_t i = 0; i < shape.Rules; ++i)
            m_Sets[set].Rules[RuleKey(i)].Record = MakeRule(set, i);
}

template <class Encode>
void FirstForm::WriteFileBy(const char* prefix, const std::string& name, Encode encode)
{
    char temporary[MAX_PATH];
    Check(::GetTempFileNameA(m_Directory.c_str(), prefix, 0, temporary) != 0, "GetTempFileNameA");
    const HANDLE file =
        ::CreateFileA(temporary, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    Check(file != INVALID_HANDLE_VALUE, temporary);
    encode(file);
    ::CloseHandle(file);
    Check(::CopyFileA(temporary, (m_Directory + name).c_str(), FALSE) != FALSE, "CopyFileA");
    ::DeleteFileA(temporary);
}

void FirstForm::WriteAll()
{
    constexpr char kMacroName[] = "KxRulMac.dat";
    const auto plain = [](HANDLE file, const char* magic)
    {
        DWORD written = 0;
        Check(::WriteFile(file, magic, 4, &written, nullptr) != FALSE, "WriteFile");
        WriteU32(file, kVersion);
    };
    WriteFileBy("Mac", kMacroName,
                [&](HANDLE file)
                {
                    plain(file, "KMAC");
                    WriteU32(file, 0);
                });
    for (auto& [index, set] : m_Sets)
    {
        char name[16];
        std::snprintf(name, sizeof(name), "KxRl%04X.dat", index);
        set.FileName = name;
        WriteFileBy("Rul", name,
                    [&](HANDLE file)
                    {
                        plain(file, "KRSF");
                        WriteField(file, &index, 2);
                        WriteText(file, L"bench", 10);
                        WriteU32(file, static_cast<uint32_t>(set.Rules.size()));
                        for (const auto& [key, rule] : set.Rules)
                        {
                            const PFW_RULE record = rule.Record;
                            WriteField(file, &record, sizeof(record));
                        }
                    });
    }
    WriteFileBy("Mas", "KxRulMas.dat",
                [&](HANDLE file)
                {
                    plain(file, "KRSM");
                    WriteText(file, kMacroName, sizeof(kMacroName) - 1);
                    const uint16_t next = m_Sets.empty() ? uint16_t{1} : m_Sets.rbegin()->first;
                    WriteField(file, &next, 2);
                    WriteText(file, nullptr, 0); // no active rule sets
                    WriteU32(file, static_cast<uint32_t>(m_Sets.size()));
                    for (const auto& [index, set] : m_Sets)
                        WriteText(file, set.FileName.data(), set.FileName.size());
                });
}

void FirstForm::ReadAll()
{
    m_Sets.clear();
    const auto open = [this](const std::string& name)
    {
        const HANDLE file = ::CreateFileA((m_Directory + name).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                          FILE_ATTRIBUTE_NORMAL, nullptr);
        Check(file != INVALID_HANDLE_VALUE, name.c_str());
        char magic[4];
        DWORD got = 0;
        Check(::ReadFile(file, magic, 4, &got, nullptr) != FALSE, "ReadFile");
        return file;
    };
    const auto number = [](HANDLE file)
    {
        uint32_t value = 0;
        ReadField(file, &value, 4);
        return value;
    };
    const auto text = [&number](HANDLE file)
    {
        std::string value(number(file) + 1, '\0');
        value.resize(ReadField(file, value.data(), static_cast<uint32_t>(value.size() - 1)));
        return value;
    };
    HANDLE file = open("KxRulMas.dat");
    number(file);
    const std::string macroName = text(file);
    uint16_t next = 0;
    ReadField(file, &next, 2);
    text(file); // no active rule sets
    std::vector<std::string> names(number(file));
    for (std::string& name : names)
        name = text(file);
    ::CloseHandle(file);

    file = open(macroName);
    number(file);
    number(file);
    ::CloseHandle(file);

    for (const std::string& name : names)
    {
        file = open(name);
        Set set;
        set.FileName = name;
        number(file);
        uint16_t index = 0;
        ReadField(file, &index, 2);
        text(file);
        const uint32_t count = number(file);
        for (uint32_t i = 0; i < count; ++i)
        {
            Rule rule = {};
            Check(ReadField(file, &rule.Record, sizeof(PFW_RULE)) == sizeof(PFW_RULE), "a rule");
            set.Rules[rule.Record.wRuleIndex] = rule;
        }
        ::CloseHandle(file);
        m_Sets[index] = std::move(set);
    }
}

} // namespace Bench
