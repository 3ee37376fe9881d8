// The encrypted stream: gathering, records and typed fields. docs/format.md describes the records.
#include "persistence/EncryptStream.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <utility>

#include "persistence/Aes128.h"
#include "persistence/FileFormat.h"

namespace
{

static_assert(std::endian::native == std::endian::little, "fields are stored as they lie in memory");

// What a derived class is given or asked for at a time. Not more: blocks of half a megabyte and above are allocated
// from the system for every file, and touching their pages for the first time costs more than the calls saved.
constexpr size_t kPiece = size_t{1} << 18;
constexpr size_t kFirstPiece = size_t{1} << 12;      // to begin writing with
constexpr size_t kGathered = kPiece + (kPiece >> 3); // a piece and the beginning of the next
constexpr size_t kPrefix = sizeof(uint32_t);         // the length before the ciphertext
constexpr uint64_t kMostBytes = std::numeric_limits<uint32_t>::max();

const Aes128::KeySchedule g_Keys(FileFormat::kKey);

template <class T>
void ReadValue(CEncryptStream& stream, T& value)
{
    T read;
    if (!stream.Read(&read, sizeof read, true))
        throw CEncryptStream::ReadError;
    value = read;
}

void WriteField(CEncryptStream& stream, const void* field, uint64_t size)
{
    if (size > kMostBytes || !stream.Write(field, static_cast<uint32_t>(size), true))
        throw CEncryptStream::WriteError;
}

} // namespace

// Not a vector: that would fill with zeros what is about to be overwritten.
void CStreamBuffer::Grow(size_t capacity, size_t used)
{
    if (capacity <= m_Capacity)
        return;
    std::unique_ptr<uint8_t[]> larger = std::make_unique_for_overwrite<uint8_t[]>(capacity);
    std::copy_n(m_Bytes.get(), used, larger.get());
    m_Bytes = std::move(larger);
    m_Capacity = capacity;
}

bool CEncryptStream::Read(void* buffer, uint32_t size, bool encrypted)
{
    if (!Enter(Mode::Reading))
        return false;
    return encrypted ? ReadRecord(buffer, size) : ReadPlain(buffer, size);
}

bool CEncryptStream::Write(const void* buffer, uint32_t size, bool encrypted)
{
    if (encrypted)
        return WriteRecords(&buffer, 1, size);
    return Enter(Mode::Writing) && WritePlain(buffer, size);
}

bool CEncryptStream::WriteRecords(const void* const records[], size_t count, uint32_t size)
{
    const uint64_t cipherBytes = Aes128::CipherBytes(size);
    if (!Enter(Mode::Writing) || cipherBytes > kMostBytes)
        return false;
    const uint32_t prefix = static_cast<uint32_t>(cipherBytes);
    const size_t recordBytes = kPrefix + prefix;
    if (count >= kPiece / recordBytes)
        m_Buffer.Grow(kGathered, m_End);
    const size_t together = std::clamp(kPiece / recordBytes, size_t{1}, Aes128::kMostChains);
    while (count > 0)
    {
        const size_t group = std::min(count, together);
        if (!MakeRoom(group * recordBytes))
            return false;
        uint8_t* out[Aes128::kMostChains];
        for (size_t i = 0; i < group; ++i)
        {
            std::memcpy(m_Buffer.Bytes() + m_End, &prefix, kPrefix);
            out[i] = m_Buffer.Bytes() + m_End + kPrefix;
            m_End += recordBytes;
        }
        Aes128::EncryptPadded(Aes128::BestCipher(), g_Keys, records, out, group, size);
        records += group;
        count -= group;
    }
    return true;
}

bool CEncryptStream::Finish()
{
    return m_Mode != Mode::Unusable && (m_Mode != Mode::Writing || HandOver(m_End));
}

CEncryptStream& CEncryptStream::ReadU8(uint8_t& value)
{
    ReadValue(*this, value);
    return *this;
}

CEncryptStream& CEncryptStream::ReadU16(uint16_t& value)
{
    ReadValue(*this, value);
    return *this;
}

CEncryptStream& CEncryptStream::ReadU32(uint32_t& value)
{
    ReadValue(*this, value);
    return *this;
}

CEncryptStream& CEncryptStream::ReadString(std::string& text)
{
    uint32_t size = 0;
    ReadU32(size);
    if (!HasRecord(size))
        throw ReadError;
    std::string read(size, '\0');
    if (!Read(read.data(), size, true))
        throw ReadError;
    read.resize(std::min(read.find('\0'), read.size()));
    text = std::move(read);
    return *this;
}

CEncryptStream& CEncryptStream::ReadString(KxCommon::WideString& text)
{
    uint32_t size = 0;
    ReadU32(size);
    if (!HasRecord(size))
        throw ReadError;
    KxCommon::WideString read(size / sizeof(KXWCHAR) + size % sizeof(KXWCHAR), KXWCHAR{});
    if (!Read(read.data(), size, true))
        throw ReadError;
    read.resize(size / sizeof(KXWCHAR));
    read.resize(std::min(read.find(KXWCHAR{}), read.size()));
    text = std::move(read);
    return *this;
}

CEncryptStream& CEncryptStream::ReadArray(std::vector<uint16_t>& array)
{
    uint32_t count = 0;
    ReadU32(count);
    const uint64_t size = uint64_t{count} * sizeof(uint16_t);
    if (size > kMostBytes || !HasRecord(size))
        throw ReadError;
    const size_t before = array.size();
    array.resize(before + count);
    if (!Read(array.data() + before, static_cast<uint32_t>(size), true))
    {
        array.resize(before);
        throw ReadError;
    }
    return *this;
}

CEncryptStream& CEncryptStream::WriteU8(uint8_t value)
{
    WriteField(*this, &value, sizeof value);
    return *this;
}

CEncryptStream& CEncryptStream::WriteU16(uint16_t value)
{
    WriteField(*this, &value, sizeof value);
    return *this;
}

CEncryptStream& CEncryptStream::WriteU32(uint32_t value)
{
    WriteField(*this, &value, sizeof value);
    return *this;
}

CEncryptStream& CEncryptStream::WriteVersion()
{
    return WriteU32(FileFormat::kVersion);
}

CEncryptStream& CEncryptStream::WriteString(std::string_view text)
{
    WriteU32(static_cast<uint32_t>(text.size()));
    WriteField(*this, text.data(), text.size());
    return *this;
}

CEncryptStream& CEncryptStream::WriteString(KxCommon::WideStringView text)
{
    WriteU32(static_cast<uint32_t>(text.size() * sizeof(KXWCHAR)));
    WriteField(*this, text.data(), uint64_t{text.size()} * sizeof(KXWCHAR));
    return *this;
}

CEncryptStream& CEncryptStream::WriteArray(const std::vector<uint16_t>& array)
{
    WriteU32(static_cast<uint32_t>(array.size()));
    WriteField(*this, array.data(), uint64_t{array.size()} * sizeof(uint16_t));
    return *this;
}

void CEncryptStream::ResetBuffer(bool usable) noexcept
{
    m_Own = {};
    m_Position = m_End = 0;
    m_IsCareful = false;
    m_Mode = usable ? Mode::Fresh : Mode::Unusable;
}

// The first operation decides whether the stream is read or written.
bool CEncryptStream::Enter(Mode mode) noexcept
{
    if (m_Mode == Mode::Fresh)
        m_Mode = mode;
    return m_Mode == mode;
}

uint64_t CEncryptStream::Left()
{
    return m_End - m_Position + RemainingBytes();
}

// Whether enough bytes are left for a record of that size; checked before memory is allocated for it.
bool CEncryptStream::HasRecord(uint64_t size)
{
    const uint64_t left = Left();
    return left >= kPrefix && Aes128::CipherBytes(size) <= left - kPrefix;
}

// Appends the next piece to what is left of the last one; the caller is waiting for needed bytes of it. At the end of
// the data nothing is added.
bool CEncryptStream::Fill(size_t needed)
{
    if (m_Position != 0)
        std::copy(m_Buffer.Bytes() + m_Position, m_Buffer.Bytes() + m_End, m_Buffer.Bytes());
    m_End -= m_Position;
    m_Position = 0;
    // No more than there is, but at least something, so that the system is asked and can refuse.
    m_Buffer.Grow(static_cast<size_t>(std::clamp<uint64_t>(Left(), Aes128::kBlock, kPiece)), m_End);
    const auto fetch = [this](size_t size)
    {
        uint32_t got = 0;
        if (!ReadBytes(m_Buffer.Bytes() + m_End, static_cast<uint32_t>(size), &got))
            return false;
        m_End += got;
        return true;
    };
    const size_t room = m_Buffer.Capacity() - m_End;
    if (!m_IsCareful && fetch(room))
        return true;
    // A bad sector further on must not cost what precedes it: from now on fetch no more than is needed.
    const bool isNew = !std::exchange(m_IsCareful, true);
    return (!isNew || needed < room) && fetch(std::min(needed, room));
}

// Makes sure that size bytes, at most a piece, are contiguous at the read position.
bool CEncryptStream::Gather(size_t size)
{
    if (m_End - m_Position < size && Left() < size)
        return false;
    while (m_End - m_Position < size)
    {
        const size_t before = m_End - m_Position;
        if (!Fill(size - before) || m_End == before)
            return false;
    }
    return true;
}

// Hands over whole pieces; the rest stays. So each piece is at a multiple of its size in the file, where the system's
// cache takes it in a few large pages: twice as fast as pieces that begin and end with a record.
bool CEncryptStream::MakeRoom(size_t size)
{
    if (m_End >= kPiece && !HandOver(m_End - m_End % kPiece))
        return false;
    if (m_End + size > m_Buffer.Capacity())
        m_Buffer.Grow(std::max(m_End + size, std::clamp(2 * m_Buffer.Capacity(), kFirstPiece, kGathered)), m_End);
    return true;
}

// Hands over the first size bytes, a piece at a time.
bool CEncryptStream::HandOver(size_t size)
{
    for (size_t done = 0; done < size; done += kPiece)
        if (!WriteBytes(m_Buffer.Bytes() + done, static_cast<uint32_t>(std::min(kPiece, size - done))))
        {
            m_Mode = Mode::Unusable; // bytes are missing: the stream must not look complete later
            return false;
        }
    std::copy(m_Buffer.Bytes() + size, m_Buffer.Bytes() + m_End, m_Buffer.Bytes());
    m_End -= size;
    return true;
}

bool CEncryptStream::ReadPlain(void* buffer, uint32_t size)
{
    uint8_t* out = static_cast<uint8_t*>(buffer);
    while (size > 0)
    {
        if (m_Position == m_End && !Fill(size))
            return false;
        const size_t part = std::min<size_t>(size, m_End - m_Position);
        if (part == 0)
            break;
        out = std::copy_n(m_Buffer.Bytes() + m_Position, part, out);
        m_Position += part;
        size -= static_cast<uint32_t>(part);
    }
    return true;
}

bool CEncryptStream::ReadRecord(void* buffer, uint32_t size)
{
    if (!Gather(kPrefix))
        return false;
    uint32_t cipherBytes;
    std::memcpy(&cipherBytes, m_Buffer.Bytes() + m_Position, kPrefix);
    m_Position += kPrefix;
    const bool fits = cipherBytes == Aes128::CipherBytes(size) || (size == 0 && cipherBytes == Aes128::kBlock);
    if (!fits || cipherBytes > Left())
        return false;

    uint8_t* out = static_cast<uint8_t*>(buffer);
    uint8_t iv[Aes128::kBlock] = {};
    for (; cipherBytes > kPiece; cipherBytes -= kPiece, size -= kPiece, out += kPiece)
    {
        if (!Gather(kPiece))
            return false;
        Aes128::BestCipher().DecryptChain(g_Keys, m_Buffer.Bytes() + m_Position, out, iv, kPiece / Aes128::kBlock);
        m_Position += kPiece;
    }
    if (!Gather(cipherBytes))
        return false;
    const uint8_t* const in = m_Buffer.Bytes() + m_Position;
    m_Position += cipherBytes;
    return Aes128::DecryptPadded(Aes128::BestCipher(), g_Keys, iv, in, cipherBytes, out, size);
}

bool CEncryptStream::WritePlain(const void* buffer, uint32_t size)
{
    if (!MakeRoom(size))
        return false;
    std::copy_n(static_cast<const uint8_t*>(buffer), size, m_Buffer.Bytes() + m_End);
    m_End += size;
    return true;
}
