// The promises of the fuzz targets, for every input of their corpus.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

using Target = int(const uint8_t* data, size_t size);
extern "C" Target FilesFuzz, PolicyFuzz, RuleFuzz;

namespace
{

void ReplayFile(const std::filesystem::path& path, Target* target) // tests run in the root of the tree
{
    std::ifstream stream(path, std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(stream), {});
    EXPECT_FALSE(bytes.empty()) << path;
    EXPECT_NO_THROW(target(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size())) << path;
}

void Replay(const char* folder, Target* target)
{
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        ReplayFile(entry.path(), target);
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
    ReplayFile("examples/workstation.json", PolicyFuzz);
}

TEST(Fuzz, RulesReplayed)
{
    Replay("tests/fuzz/corpus/rule_fuzz", RuleFuzz);
}
