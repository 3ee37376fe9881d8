#include "persistence/EncryptFile.h"

#include <gtest/gtest.h>

#include "common/srclib/KxComn_Handle.h"
#include "tests/support/TempDir.h"

namespace
{

TEST(EncryptedFile, AccessDecidesWhatBecomesOfTheFile)
{
    const TempDir directory;
    const std::string path = (directory / "file.dat").string();
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
        std::filesystem::remove(path);
        if (c.Before != nullptr)
            WriteBytes(path, c.Before);
        CEncryptFile file;
        uint8_t value = 0;
        EXPECT_FALSE(file.Read(&value, 1, false) || file.Write(&value, 1, true) || file.Finish() || file.Close());
        EXPECT_EQ(file.Open(path.c_str(), c.Access), c.Opened);
        EXPECT_EQ(file.Read(&value, 1, false), c.Opened && (c.Access & GENERIC_READ) != 0);

        // Nobody else can open the file meanwhile, not even the same object.
        const KxCommon::UniqueFile second(::CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                        nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(c.Opened ? ERROR_SHARING_VIOLATION : ERROR_FILE_NOT_FOUND));
        EXPECT_FALSE(c.Opened && file.Open((directory / "other").string().c_str(), GENERIC_WRITE));
        EXPECT_EQ(file.Close(), c.Opened);
        EXPECT_FALSE(file.Read(&value, 1, false) || file.Write(&value, 1, true) || file.Finish() || file.Close());
        EXPECT_EQ(ReadBytes(path), c.After);
    }
    EXPECT_FALSE(std::filesystem::exists(directory / "other"));
}

} // namespace
