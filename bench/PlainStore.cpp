// The floor under reading and writing: large pieces; one open, flush, close and replace per file.
#include "bench/PlainStore.h"

#include <cstdio>
#include <cstring>

#include "common/srclib/KxComn_Windows.h"

namespace Bench
{
namespace
{

constexpr size_t kPiece = 1024 * 1024;
constexpr size_t kSetHead = 104;     // what the library writes before the rules if the name fits one block
constexpr size_t kRuleRecord = 2852; // length and ciphertext of a rule
constexpr size_t kMacroFile = 44;    // no macros
constexpr size_t kMasterHead = 128;  // an empty active list
constexpr size_t kMasterPerSet = 40;

HANDLE OpenFile(const std::string& path, DWORD access, DWORD disposition)
{
    const HANDLE file = ::CreateFileA(path.c_str(), access, 0, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    Check(file != INVALID_HANDLE_VALUE, path.c_str());
    return file;
}

// Gathers bytes and passes them to the system in pieces of exactly 1 MB, except the last.
class PieceWriter
{
public:
    PieceWriter(const std::string& path, std::vector<uint8_t>& piece)
        : m_File(OpenFile(path, GENERIC_WRITE, CREATE_ALWAYS)), m_Piece(piece)
    {
        m_Piece.resize(kPiece + kRuleRecord);
    }
    uint8_t* Room(size_t size)
    {
        if (m_Used >= kPiece)
            Flush(kPiece);
        m_Used += size;
        return m_Piece.data() + (m_Used - size);
    }
    void Finish()
    {
        Flush(m_Used);
        Check(::FlushFileBuffers(m_File) != FALSE, "FlushFileBuffers");
        ::CloseHandle(m_File);
    }

private:
    void Flush(size_t size)
    {
        DWORD written = 0;
        Check(::WriteFile(m_File, m_Piece.data(), static_cast<DWORD>(size), &written, nullptr) != FALSE, "WriteFile");
        m_Used -= size;
        std::memmove(m_Piece.data(), m_Piece.data() + size, m_Used);
    }
    HANDLE m_File;
    std::vector<uint8_t>& m_Piece;
    size_t m_Used = 0;
};

} // namespace

void PlainStore::Fill(const Shape& shape)
{
    m_Sets.Clear();
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
    {
        RuleMap& rules = m_Sets.Emplace(set);
        for (size_t i = 0; i < shape.Rules; ++i)
            rules.Emplace(RuleKey(i), MakeRule(set, i));
    }
}

std::string PlainStore::FileName(uint16_t set) const
{
    char name[16];
    std::snprintf(name, sizeof(name), "Pl%04X.dat", set);
    return m_Directory + name;
}

void PlainStore::Replace(const std::string& name)
{
    Check(::MoveFileExA((m_Directory + "Plain.tmp").c_str(), name.c_str(),
                        MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != FALSE,
          "MoveFileExA");
}

void PlainStore::WriteSmallFile(const char* name, size_t size)
{
    PieceWriter writer(m_Directory + "Plain.tmp", m_Piece);
    std::memset(writer.Room(size), 0x11, size);
    writer.Finish();
    Replace(m_Directory + name);
}

void PlainStore::WriteSetFile(size_t position)
{
    const RuleMap& rules = m_Sets.ValueAt(position);
    PieceWriter writer(m_Directory + "Plain.tmp", m_Piece);
    std::memset(writer.Room(kSetHead), 0x11, kSetHead);
    for (size_t i = 0; i < rules.Size(); ++i)
    {
        uint8_t* const record = writer.Room(kRuleRecord);
        std::memcpy(record, &rules.ValueAt(i).Record, sizeof(PFW_RULE));
        std::memset(record + sizeof(PFW_RULE), 0, kRuleRecord - sizeof(PFW_RULE));
    }
    writer.Finish();
    Replace(FileName(m_Sets.KeyAt(position)));
}

void PlainStore::WriteAll()
{
    WriteSmallFile("PlMac.dat", kMacroFile);
    for (size_t i = 0; i < m_Sets.Size(); ++i)
        WriteSetFile(i);
    WriteSmallFile("PlMas.dat", kMasterHead + kMasterPerSet * m_Sets.Size());
}

void PlainStore::WriteSet(uint16_t set)
{
    WriteSmallFile("PlMac.dat", kMacroFile);
    WriteSetFile(m_Sets.LowerBound(set));
    WriteSmallFile("PlMas.dat", kMasterHead + kMasterPerSet * m_Sets.Size());
}

void PlainStore::ReadAll(const Shape& shape)
{
    m_Sets.Clear();
    m_Piece.resize(kPiece);
    const auto readSmall = [this](const char* name)
    {
        const HANDLE file = OpenFile(m_Directory + name, GENERIC_READ, OPEN_EXISTING);
        DWORD got = 0;
        Check(::ReadFile(file, m_Piece.data(), kPiece, &got, nullptr) != FALSE, "ReadFile");
        ::CloseHandle(file);
    };
    readSmall("PlMas.dat");
    readSmall("PlMac.dat");
    for (uint16_t set = kFirstSet; set < kFirstSet + shape.Sets; ++set)
    {
        RuleMap& rules = m_Sets.Emplace(set);
        const HANDLE file = OpenFile(FileName(set), GENERIC_READ, OPEN_EXISTING);
        size_t rest = 0;
        size_t skip = kSetHead;
        for (;;)
        {
            DWORD got = 0;
            Check(::ReadFile(file, m_Piece.data() + rest, static_cast<DWORD>(kPiece - rest), &got, nullptr) != FALSE,
                  "ReadFile");
            if (got == 0)
                break;
            const uint8_t* at = m_Piece.data() + skip;
            const uint8_t* const end = m_Piece.data() + rest + got;
            skip = 0;
            for (; static_cast<size_t>(end - at) >= kRuleRecord; at += kRuleRecord)
            {
                uint16_t key;
                std::memcpy(&key, at, sizeof(key));
                rules.Emplace(key, at);
            }
            rest = static_cast<size_t>(end - at);
            std::memmove(m_Piece.data(), at, rest);
        }
        ::CloseHandle(file);
        Check(rules.Size() == shape.Rules, "rules read");
    }
}

std::vector<const PFW_RULE*> PlainStore::Records() const
{
    std::vector<const PFW_RULE*> records;
    for (size_t i = 0; i < m_Sets.Size(); ++i)
        for (size_t j = 0; j < m_Sets.ValueAt(i).Size(); ++j)
            records.push_back(&m_Sets.ValueAt(i).ValueAt(j).Record);
    return records;
}

} // namespace Bench
