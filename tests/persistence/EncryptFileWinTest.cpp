#include "persistence/EncryptFile.h"

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"

namespace
{

class EncryptedFile : public testing::Test
{
protected:
    [[nodiscard]] std::string OnDisk() const { return ReadBytes(m_Path); }

    TempDir m_Directory;
    const std::string m_Path = (m_Directory / "file.dat").string();
};

TEST_F(EncryptedFile, AccessDecidesWhatBecomesOfTheFile)
{
    const struct
    {
        DWORD Access;
        const char* Before; // null: missing
        bool Opened;
        const char* After;
    } cases[] = {
        {GENERIC_READ, "before", true, "before"}, {GENERIC_READ, nullptr, false, ""},
        {GENERIC_WRITE, "before", true, ""},      {GENERIC_READ | GENERIC_WRITE, "before", true, ""},
        {GENERIC_WRITE, nullptr, true, ""},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.Access << " " << (c.Before == nullptr ? "missing" : c.Before));
        std::filesystem::remove(m_Path);
        if (c.Before != nullptr)
            WriteBytes(m_Path, c.Before);
        CEncryptFile file;
        uint8_t value = 0;
        EXPECT_FALSE(file.Read(&value, 1, false) || file.Write(&value, 1, true) || file.Finish() || file.Close());
        EXPECT_EQ(file.Open(m_Path.c_str(), c.Access), c.Opened);
        EXPECT_EQ(file.Read(&value, 1, false), c.Opened && (c.Access & GENERIC_READ) != 0);

        // Nobody else can open the file meanwhile, not even the same object.
        const KxCommon::UniqueFile second(::CreateFileA(
            m_Path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(c.Opened ? ERROR_SHARING_VIOLATION : ERROR_FILE_NOT_FOUND));
        EXPECT_FALSE(c.Opened && file.Open((m_Directory / "other").string().c_str(), GENERIC_WRITE));
        EXPECT_EQ(file.Close(), c.Opened);
        EXPECT_FALSE(file.Read(&value, 1, false) || file.Write(&value, 1, true) || file.Finish() || file.Close());
        EXPECT_EQ(OnDisk(), c.After);
    }
    EXPECT_FALSE(std::filesystem::exists(m_Directory / "other"));
}

} // namespace
