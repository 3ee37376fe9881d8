// The promises of the fuzz targets, for every input of their corpus. Each target is compiled under a name of its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int FilesFuzz(const uint8_t* data, size_t size);
extern "C" int PolicyFuzz(const uint8_t* data, size_t size);
extern "C" int RuleFuzz(const uint8_t* data, size_t size);

namespace
{

void Replay(const char* folder, int (*target)(const uint8_t*, size_t))
{
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) // tests run in the root of the tree
    {
        std::ifstream stream(entry.path(), std::ios::binary);
        const std::vector<char> bytes(std::istreambuf_iterator<char>(stream), {});
        EXPECT_NO_THROW(target(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) << entry.path();
        ++count;
    }
    EXPECT_GT(count, 40u);
}

} // namespace

TEST(Fuzz, FilesReplayed)
{
    Replay("tests/fuzz/corpus/files_fuzz", FilesFuzz);
}

TEST(Fuzz, PoliciesReplayed)
{
    Replay("tests/fuzz/corpus/policy_fuzz", PolicyFuzz);
}

TEST(Fuzz, RulesReplayed)
{
    Replay("tests/fuzz/corpus/rule_fuzz", RuleFuzz);
}
